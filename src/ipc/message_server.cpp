#include "ipc/message_server.h"

#include <fcntl.h>
#include <gatewise/log.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>

#include "platform/mach/frame.h"
#include "platform/mach/socket_io.h"

namespace gw::ipc {
namespace {

using Clock = std::chrono::steady_clock;
using fs::UniqueFd;

constexpr std::uint64_t kMaxFrame = kMaxRequestSize + mach::kMaxRegionBytes;

struct Connection {
  UniqueFd fd;
  Credentials peer;
  std::vector<std::uint8_t> in;  // length prefix and body as they arrive
  std::vector<UniqueFd> fds;
  std::vector<std::uint8_t> out;  // length prefix and reply
  std::size_t sent = 0;
  bool dispatched = false;
  bool answering = false;
  Clock::time_point due;  // idle limit while reading; answer (or silent close) time after
};

std::uint32_t frameLength(const std::vector<std::uint8_t>& in) {
  return std::uint32_t(in[0]) | std::uint32_t(in[1]) << 8 | std::uint32_t(in[2]) << 16 |
         std::uint32_t(in[3]) << 24;
}

}  // namespace

std::string serviceSocketPathFor(Service service) {
  return mach::serviceSocketPath(serviceName(service));
}

std::unique_ptr<MessageServer> MessageServer::listen(const std::string& socketPath,
                                                     const Dispatcher& dispatcher,
                                                     std::string* error) {
  return listen(socketPath, dispatcher, Limits{}, error);
}

std::unique_ptr<MessageServer> MessageServer::adopt(UniqueFd listener, std::string path,
                                                    const Dispatcher& dispatcher, Limits limits,
                                                    std::string* error) {
  int flags = ::fcntl(listener.get(), F_GETFL);
  if (flags < 0 || ::fcntl(listener.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
    if (error) *error = std::string("adopt: ") + std::strerror(errno);
    return nullptr;
  }
  UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
  UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!epoll || !wake) {
    if (error) *error = std::string("epoll: ") + std::strerror(errno);
    return nullptr;
  }
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = listener.get();
  ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, listener.get(), &ev);
  ev.data.fd = wake.get();
  ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wake.get(), &ev);
  auto server = std::unique_ptr<MessageServer>(new MessageServer(
      std::move(path), dispatcher, std::move(listener), std::move(epoll), std::move(wake)));
  server->limits_ = limits;
  return server;
}

std::unique_ptr<MessageServer> MessageServer::listen(const std::string& socketPath,
                                                     const Dispatcher& dispatcher, Limits limits,
                                                     std::string* error) {
  auto failed = [&](const std::string& what) -> std::unique_ptr<MessageServer> {
    if (error) *error = what + ": " + std::strerror(errno);
    return nullptr;
  };
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.empty() || socketPath.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return failed("bad socket path \"" + socketPath + "\"");
  }
  std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(socketPath).parent_path(), ignored);
  struct stat st;
  if (::lstat(socketPath.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(socketPath.c_str());

  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener) return failed("socket");
  if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return failed("bind " + socketPath);
  }
  ::chmod(socketPath.c_str(), 0666);  // every local user may ask; rights come from SO_PEERCRED
  if (::listen(listener.get(), SOMAXCONN) != 0) return failed("listen");
  UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
  UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!epoll || !wake) return failed("epoll");
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = listener.get();
  ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, listener.get(), &ev);
  ev.data.fd = wake.get();
  ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wake.get(), &ev);
  auto server = std::unique_ptr<MessageServer>(new MessageServer(
      socketPath, dispatcher, std::move(listener), std::move(epoll), std::move(wake)));
  server->limits_ = limits;
  return server;
}

MessageServer::MessageServer(std::string path, const Dispatcher& dispatcher, UniqueFd listener,
                             UniqueFd epoll, UniqueFd wake)
    : path_(std::move(path)),
      dispatcher_(dispatcher),
      listener_(std::move(listener)),
      epoll_(std::move(epoll)),
      wake_(std::move(wake)) {}

MessageServer::~MessageServer() {
  sd_event_source_disable_unref(io_);
  sd_event_source_disable_unref(timer_);
  loop_.reset();
  struct stat st;
  if (::lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path_.c_str());
}

void MessageServer::stop() {
  stopping_ = true;
  std::uint64_t one = 1;
  [[maybe_unused]] auto n = ::write(wake_.get(), &one, sizeof one);
}

struct MessageServer::Loop {
  MessageServer& server;
  std::map<int, Connection> connections;

  void watch(Connection& c, std::uint32_t events, int op) {
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = c.fd.get();
    ::epoll_ctl(server.epoll_.get(), op, c.fd.get(), &ev);
  }

  void close(int fd) {  // the fd leaves epoll as it closes
    connections.erase(fd);
    server.open_ = connections.size();
  }

  void accept() {
    for (;;) {
      int fd = ::accept4(server.listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd < 0) return;
      UniqueFd owned(fd);
      if (connections.size() >= server.limits_.maxConnections) continue;  // closes it
      Connection c;
      ucred cred{};
      socklen_t length = sizeof cred;
      if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) == 0) {
        c.peer = {cred.uid, cred.gid, cred.pid};
      }
      c.fd = std::move(owned);
      c.due = Clock::now() + kIdleTimeout;
      auto [it, inserted] = connections.emplace(fd, std::move(c));
      server.open_ = connections.size();
      watch(it->second, EPOLLIN, EPOLL_CTL_ADD);
    }
  }

  void read(Connection& c) {
    std::uint8_t chunk[16384];
    for (;;) {
      std::size_t want = sizeof chunk;
      if (c.in.size() >= 4) {
        std::uint64_t total = 4 + std::uint64_t(frameLength(c.in));
        want = std::min<std::uint64_t>(want, total - c.in.size());
        if (want == 0) break;
      } else {
        want = 4 - c.in.size();  // the length first, so that no byte past the frame is read
      }
      std::size_t got = 0;
      mach::IoStatus status = mach::receiveAvailable(c.fd.get(), chunk, want, &got, &c.fds);
      if (status != mach::IoStatus::Ok) return close(c.fd.get());
      if (got == 0) return;
      c.in.insert(c.in.end(), chunk, chunk + got);
      if (c.in.size() == 4) {
        std::uint32_t length = frameLength(c.in);
        if (length < sizeof(mach_msg_header_t) || length > kMaxFrame) return close(c.fd.get());
        c.in.reserve(4 + length);
      }
    }
    dispatch(c);
  }

  void dispatch(Connection& c) {
    std::vector<int> fds;
    for (const UniqueFd& fd : c.fds) fds.push_back(fd.get());
    Dispatcher::Outcome outcome =
        server.dispatcher_.dispatch({c.in.data() + 4, c.in.size() - 4}, fds, c.peer);
    c.fds.clear();
    c.in = {};
    c.dispatched = true;
    c.answering = outcome.answer;
    if (outcome.answer) {
      std::uint32_t length = std::uint32_t(outcome.reply.size());
      c.out = {std::uint8_t(length), std::uint8_t(length >> 8), std::uint8_t(length >> 16),
               std::uint8_t(length >> 24)};
      c.out.insert(c.out.end(), outcome.reply.begin(), outcome.reply.end());
    }
    if (outcome.delay.count() > 0) {
      c.due = Clock::now() + outcome.delay;
      watch(c, EPOLLRDHUP, EPOLL_CTL_MOD);  // wait, but notice a client that gives up
      return;
    }
    finish(c);
  }

  // Writes what is left of the answer, or closes when there is none.
  void finish(Connection& c) {
    if (!c.answering) return close(c.fd.get());
    while (c.sent < c.out.size()) {
      ssize_t n = ::send(c.fd.get(), c.out.data() + c.sent, c.out.size() - c.sent,
                         MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) {
        c.due = Clock::now() + kIdleTimeout;
        watch(c, EPOLLOUT, EPOLL_CTL_MOD);
        return;
      }
      if (n < 0) return close(c.fd.get());
      c.sent += std::size_t(n);
    }
    close(c.fd.get());
  }

  int nextTimeout() const {
    if (connections.empty()) return -1;
    Clock::time_point earliest = Clock::time_point::max();
    for (const auto& [fd, c] : connections) earliest = std::min(earliest, c.due);
    auto left = std::chrono::ceil<std::chrono::milliseconds>(earliest - Clock::now()).count();
    return left < 0 ? 0 : int(std::min<long long>(left, 60000));
  }

  void expire() {
    Clock::time_point now = Clock::now();
    std::vector<int> due;
    for (const auto& [fd, c] : connections) {
      if (c.due <= now) due.push_back(fd);
    }
    for (int fd : due) {
      auto it = connections.find(fd);
      if (it == connections.end()) continue;
      Connection& c = it->second;
      // A delayed answer is due; anything else timed out.
      if (c.dispatched && c.sent == 0 && !(c.answering && c.out.empty())) {
        finish(c);
      } else {
        close(fd);
      }
    }
  }
};

void MessageServer::serveEvents(int timeoutMs) {
  if (!loop_) loop_.reset(new Loop{*this, {}});
  Loop& loop = *loop_;
  epoll_event events[64];
  int n = ::epoll_wait(epoll_.get(), events, 64, timeoutMs);
  if (n < 0 && errno != EINTR) {
    GW_LOG(0, "*** epoll_wait failed: %s", std::strerror(errno));
    stopping_ = true;
    return;
  }
  for (int i = 0; i < n; ++i) {
    int fd = events[i].data.fd;
    if (fd == listener_.get()) {
      loop.accept();
      continue;
    }
    if (fd == wake_.get()) continue;
    auto it = loop.connections.find(fd);
    if (it == loop.connections.end()) continue;
    Connection& c = it->second;
    if (!c.dispatched) {
      loop.read(c);
    } else if (events[i].events & EPOLLOUT) {
      loop.finish(c);
    } else if (events[i].events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) {
      loop.close(fd);  // the client gave up while its answer was delayed
    }
  }
  loop.expire();
}

void MessageServer::run() {
  if (!loop_) loop_.reset(new Loop{*this, {}});
  while (!stopping_) serveEvents(loop_->nextTimeout());
}

int MessageServer::attach(sd_event* loop) {
  if (!loop_) loop_.reset(new Loop{*this, {}});
  int r = sd_event_add_io(loop, &io_, epoll_.get(), EPOLLIN, &MessageServer::onReadable, this);
  if (r < 0) return r;
  r = sd_event_add_time(loop, &timer_, CLOCK_MONOTONIC, UINT64_MAX, 0, &MessageServer::onTimer,
                        this);
  if (r < 0) return r;
  rearmTimer();
  return 0;
}

int MessageServer::onReadable(sd_event_source*, int, uint32_t, void* self) {
  auto* server = static_cast<MessageServer*>(self);
  server->serveEvents(0);
  server->rearmTimer();
  return 0;
}

int MessageServer::onTimer(sd_event_source*, uint64_t, void* self) {
  auto* server = static_cast<MessageServer*>(self);
  server->loop_->expire();
  server->rearmTimer();
  return 0;
}

void MessageServer::rearmTimer() {
  int ms = loop_->nextTimeout();
  if (ms < 0) {
    sd_event_source_set_enabled(timer_, SD_EVENT_OFF);
    return;
  }
  std::uint64_t now = 0;
  sd_event_now(sd_event_source_get_event(timer_), CLOCK_MONOTONIC, &now);
  sd_event_source_set_time(timer_, now + std::uint64_t(ms) * 1000);
  sd_event_source_set_enabled(timer_, SD_EVENT_ONESHOT);
}

}  // namespace gw::ipc
