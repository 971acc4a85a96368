#include "ipc/message_server.h"

#include <fcntl.h>
#include <gatewise/log.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "ipc/message_server_loop.h"
#include "platform/mach/socket_io.h"

namespace gw::ipc {

using fs::UniqueFd;

std::string serviceSocketPathFor(Service service) {
  return mach::serviceSocketPath(serviceName(service));
}

std::unique_ptr<MessageServer> MessageServer::listen(const std::string& socketPath,
                                                     const Dispatcher& dispatcher,
                                                     std::string* error) {
  return listen(socketPath, dispatcher, Limits{}, error);
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
  if (::listen(listener.get(), SOMAXCONN) != 0) {
    int saved = errno;
    ::unlink(socketPath.c_str());
    errno = saved;
    return failed("listen");
  }
  auto server = make(std::move(listener), socketPath, true, dispatcher, limits, error);
  if (!server) ::unlink(socketPath.c_str());
  return server;
}

std::unique_ptr<MessageServer> MessageServer::adopt(UniqueFd listener, std::string path,
                                                    const Dispatcher& dispatcher, Limits limits,
                                                    std::string* error) {
  int listening = 0;
  socklen_t length = sizeof listening;
  if (!listener ||
      ::getsockopt(listener.get(), SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) != 0 ||
      !listening) {
    if (error) *error = "adopt " + path + ": not a listening socket";
    return nullptr;
  }
  int flags = ::fcntl(listener.get(), F_GETFL);
  ::fcntl(listener.get(), F_SETFL, flags | O_NONBLOCK);
  ::fcntl(listener.get(), F_SETFD, FD_CLOEXEC);
  return make(std::move(listener), std::move(path), false, dispatcher, limits, error);
}

std::unique_ptr<MessageServer> MessageServer::make(UniqueFd listener, std::string path,
                                                   bool ownsPath, const Dispatcher& dispatcher,
                                                   Limits limits, std::string* error) {
  UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
  UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = listener.get();
  bool ok = epoll && wake && ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, listener.get(), &ev) == 0;
  ev.data.fd = wake.get();
  ok = ok && ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wake.get(), &ev) == 0;
  if (!ok) {
    if (error) *error = std::string("epoll: ") + std::strerror(errno);
    return nullptr;
  }
  return std::unique_ptr<MessageServer>(new MessageServer(std::move(path), ownsPath, dispatcher,
                                                          limits, std::move(listener),
                                                          std::move(epoll), std::move(wake)));
}

MessageServer::MessageServer(std::string path, bool ownsPath, const Dispatcher& dispatcher,
                             Limits limits, UniqueFd listener, UniqueFd epoll, UniqueFd wake)
    : path_(std::move(path)),
      ownsPath_(ownsPath),
      dispatcher_(dispatcher),
      limits_(limits),
      listener_(std::move(listener)),
      epoll_(std::move(epoll)),
      wake_(std::move(wake)),
      counters_(std::make_unique<Counters>()) {
  loop_ = std::make_unique<Loop>(*this);
}

MessageServer::~MessageServer() {
  sd_event_source_disable_unref(ioSource_);
  sd_event_source_disable_unref(timerSource_);
  loop_.reset();  // closes every connection
  struct stat st;
  if (ownsPath_ && ::lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
    ::unlink(path_.c_str());
  }
}

void MessageServer::stop() {
  stopping_ = true;
  std::uint64_t one = 1;
  [[maybe_unused]] auto n = ::write(wake_.get(), &one, sizeof one);
}

std::uint64_t MessageServer::readGeneration() const { return loop_->readGeneration(); }

std::size_t MessageServer::openConnections() const { return counters_->openConnections.load(); }

MessageServer::Stats MessageServer::stats() const {
  const Counters& c = *counters_;
  return {
      c.openConnections.load(),     c.bytesInFlight.load(),        c.accepted.load(),
      c.refusedConnections.load(),  c.reclaimedConnections.load(), c.overBudgetConnections.load(),
      c.timedOutConnections.load(), c.descriptorsRefused.load(),   c.descriptorExhaustions.load(),
      c.loopWakeups.load()};
}

int MessageServer::millisecondsToNextDeadline() const {
  auto deadline = loop_->nextDeadline();
  if (!deadline) return -1;
  auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Loop::Clock::now()).count();
  return left < 0 ? 0 : int(std::min<long long>(left, 60000));
}

void MessageServer::run() {
  epoll_event events[64];
  while (!stopping_) {
    int n = ::epoll_wait(epoll_.get(), events, 64, millisecondsToNextDeadline());
    if (n < 0 && errno != EINTR) {
      GW_LOG(0, "*** epoll_wait failed: %s", std::strerror(errno));
      break;
    }
    if (n > 0) loop_->handle(events, n);
    loop_->expire();
  }
}

void MessageServer::serviceOnce() {
  // With no connection held the listener is all there is to serve (a stop is seen below): accept
  // straight away rather than ask the inner epoll first.
  if (loop_->holdsNoConnection() && !stopping_) {
    loop_->acceptWaiting();
  } else {
    epoll_event events[64];
    int n = ::epoll_wait(epoll_.get(), events, 64, 0);
    if (n > 0) loop_->handle(events, n);
  }
  loop_->expire();
  if (stopping_) {
    sd_event_source_set_enabled(ioSource_, SD_EVENT_OFF);
    sd_event_source_set_enabled(timerSource_, SD_EVENT_OFF);
  }
}

int MessageServer::rearmTimer() {
  if (stopping_) return 0;
  // A timer armed for a moment no later than the earliest deadline stays as it is, also when no
  // deadline is left: going off early costs one wake-up that finds nothing due, where re-arming
  // for every connection would reprogram the kernel timer twice per request.
  auto deadline = loop_->nextDeadline();
  int enabled = SD_EVENT_OFF;
  std::uint64_t armedFor = 0;
  bool armed = sd_event_source_get_enabled(timerSource_, &enabled) >= 0 &&
               enabled != SD_EVENT_OFF && sd_event_source_get_time(timerSource_, &armedFor) >= 0;
  // steady_clock is CLOCK_MONOTONIC, the clock the timer source runs on.
  std::uint64_t due = 0;
  if (deadline) {
    auto usec = std::chrono::duration_cast<std::chrono::microseconds>(deadline->time_since_epoch());
    due = std::uint64_t(std::max<long long>(usec.count(), 1));
  }
  if (!deadline || (armed && armedFor <= due)) return 0;
  int rc = sd_event_source_set_time(timerSource_, due);
  if (rc < 0) return rc;
  return sd_event_source_set_enabled(timerSource_, SD_EVENT_ONESHOT);
}

int MessageServer::onIo(sd_event_source*, int, std::uint32_t, void* self) {
  auto* server = static_cast<MessageServer*>(self);
  server->serviceOnce();
  // An error returned here would switch the source off for good; serve on and say so instead.
  if (int rc = server->rearmTimer(); rc < 0) {
    GW_LOG(0, "*** could not arm the message server's timer: %s", std::strerror(-rc));
  }
  return 0;
}

int MessageServer::onTimer(sd_event_source*, std::uint64_t, void* self) {
  auto* server = static_cast<MessageServer*>(self);
  server->serviceOnce();
  // An error returned here would switch the source off for good; serve on and say so instead.
  if (int rc = server->rearmTimer(); rc < 0) {
    GW_LOG(0, "*** could not arm the message server's timer: %s", std::strerror(-rc));
  }
  return 0;
}

int MessageServer::attach(sd_event* loop) {
  if (!loop) return -EINVAL;
  if (ioSource_ || timerSource_) return -EBUSY;
  int rc = sd_event_add_io(loop, &ioSource_, epoll_.get(), EPOLLIN, onIo, this);
  if (rc < 0) return rc;
  rc = sd_event_add_time(loop, &timerSource_, CLOCK_MONOTONIC, UINT64_MAX, 1000, onTimer, this);
  if (rc < 0) {
    ioSource_ = sd_event_source_disable_unref(ioSource_);
    return rc;
  }
  sd_event_source_set_description(ioSource_, "message-server-io");
  sd_event_source_set_description(timerSource_, "message-server-deadlines");
  return rearmTimer();
}

}  // namespace gw::ipc
