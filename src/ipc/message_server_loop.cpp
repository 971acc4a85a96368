#include "ipc/message_server_loop.h"

#include <gatewise/log.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "platform/mach/frame.h"
#include "platform/mach/socket_io.h"

namespace gw::ipc {
namespace {

using fs::UniqueFd;

constexpr std::uint64_t kMaxFrame = kMaxRequestSize + mach::kMaxRegionBytes;
// What every connection may hold without counting against a budget: any request without regions.
constexpr std::size_t kFreeBytes = 4 + kMaxRequestSize;
constexpr std::size_t kChunkSize = 64 * 1024;
constexpr int kAcceptsPerWakeup = 64;

std::uint32_t frameLength(const std::vector<std::uint8_t>& in) {
  return std::uint32_t(in[0]) | std::uint32_t(in[1]) << 8 | std::uint32_t(in[2]) << 16 |
         std::uint32_t(in[3]) << 24;
}

std::uint64_t chargeFor(std::size_t capacity) {
  return capacity > kFreeBytes ? capacity - kFreeBytes : 0;
}

}  // namespace

MessageServer::Loop::Loop(MessageServer& server)
    : server_(server),
      counters_(*server.counters_),
      spare_(::eventfd(0, EFD_CLOEXEC)),
      chunk_(kChunkSize) {}

void MessageServer::Loop::watch(int fd, std::uint32_t events, int op) {
  epoll_event ev{};
  ev.events = events;
  ev.data.fd = fd;
  ::epoll_ctl(server_.epoll_.get(), op, fd, &ev);
}

void MessageServer::Loop::handle(const epoll_event* events, int count) {
  ++counters_.loopWakeups;
  for (int i = 0; i < count; ++i) {
    int fd = events[i].data.fd;
    if (fd == server_.listener_.get()) {
      accept();
      continue;
    }
    if (fd == server_.wake_.get()) {
      std::uint64_t drained;
      [[maybe_unused]] auto n = ::read(fd, &drained, sizeof drained);
      continue;
    }
    auto it = connections_.find(fd);
    if (it == connections_.end()) continue;
    Connection& c = it->second;
    try {
      if (!c.dispatched) {
        read(c);
      } else if (events[i].events & EPOLLOUT) {
        finish(c);
      } else if (events[i].events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) {
        close(fd);  // the client gave up while its answer was delayed
      }
    } catch (const std::exception& e) {  // std::bad_alloc above all: drop this one, serve on
      GW_LOG_CAUGHT(e);
      close(fd);
    }
  }
}

void MessageServer::Loop::accept() {
  for (int i = 0; i < kAcceptsPerWakeup; ++i) {
    int fd = ::accept4(server_.listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        outOfDescriptors();
      }
      return;
    }
    try {
      admit(UniqueFd(fd));
    } catch (const std::exception& e) {  // the descriptor is closed on the way out
      GW_LOG_CAUGHT(e);
    }
  }
}

// Spends the spare descriptor to take the waiting connection off the queue and close it (its
// client sees the close at once instead of waiting for its time-out), then stops listening for a
// moment: the listener would stay readable and wake the loop for ever otherwise.
void MessageServer::Loop::outOfDescriptors() {
  ++counters_.descriptorExhaustions;
  if (spare_) {
    spare_.reset();
    int fd = ::accept4(server_.listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) ::close(fd);
    spare_ = UniqueFd(::eventfd(0, EFD_CLOEXEC));
  }
  if (listening_) {
    GW_LOG(0, "*** out of file descriptors with %d connections open; pausing new connections",
           int(connections_.size()));
  }
  pauseListener();
}

void MessageServer::Loop::pauseListener() {
  listening_ = false;
  resumeAt_ = Clock::now() + server_.limits_.listenerPause;
  watch(server_.listener_.get(), 0, EPOLL_CTL_MOD);
}

void MessageServer::Loop::resumeListener() {
  listening_ = true;
  if (!spare_) spare_ = UniqueFd(::eventfd(0, EFD_CLOEXEC));
  watch(server_.listener_.get(), EPOLLIN, EPOLL_CTL_MOD);
}

void MessageServer::Loop::admit(UniqueFd fd) {
  const Limits& limits = server_.limits_;
  Credentials peer;
  ucred cred{};
  socklen_t length = sizeof cred;
  if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &length) == 0) {
    peer = {cred.uid, cred.gid, cred.pid};
  }
  // Root is held to the total only; anyone else first to the per-uid cap.
  if (peer.uid != 0 && connectionsPerUid_[peer.uid] >= limits.maxConnectionsPerUid &&
      !reclaimFrom(peer.uid)) {
    ++counters_.refusedConnections;
    return;
  }
  if (connections_.size() >= limits.maxConnections && !reclaimFromLargestHolder()) {
    ++counters_.refusedConnections;
    return;
  }
  int key = fd.get();
  Connection c;
  c.fd = std::move(fd);
  c.peer = peer;
  c.serial = nextSerial_++;
  c.due = Clock::now() + limits.idleTimeout;
  connections_.emplace(key, std::move(c));
  ++connectionsPerUid_[peer.uid];
  ++counters_.accepted;
  counters_.openConnections = connections_.size();
  watch(key, EPOLLIN, EPOLL_CTL_ADD);
  // A client has usually sent its whole request by the time it is accepted: serve it now rather
  // than after another turn of the loop. Whatever has not arrived yet is read when epoll says so.
  try {
    read(connections_.find(key)->second);
  } catch (const std::exception& e) {  // std::bad_alloc above all: drop this one, serve on
    GW_LOG_CAUGHT(e);
    close(key);
  }
}

// Closes the oldest connection of uid that is still reading its request.
bool MessageServer::Loop::reclaimFrom(uid_t uid) {
  const Connection* oldest = nullptr;
  for (const auto& [fd, c] : connections_) {
    if (c.peer.uid == uid && !c.dispatched && (!oldest || c.serial < oldest->serial)) oldest = &c;
  }
  if (!oldest) return false;
  ++counters_.reclaimedConnections;
  close(oldest->fd.get());
  return true;
}

bool MessageServer::Loop::reclaimFromLargestHolder() {
  std::vector<std::pair<std::size_t, uid_t>> holders;
  for (const auto& [uid, count] : connectionsPerUid_) holders.emplace_back(count, uid);
  std::sort(holders.rbegin(), holders.rend());
  for (const auto& [count, uid] : holders) {
    if (reclaimFrom(uid)) return true;
  }
  return false;
}

// Accounts for `in` growing to capacity; false (nothing changed) when that passes a budget.
bool MessageServer::Loop::charge(Connection& c, std::size_t capacity) {
  const Limits& limits = server_.limits_;
  std::uint64_t charge = chargeFor(capacity);
  if (charge <= c.charged) return true;
  std::uint64_t more = charge - c.charged;
  std::uint64_t& ofUid = bytesPerUid_[c.peer.uid];
  if (bytesInFlight_ + more > limits.maxBytesInFlight ||
      ofUid + more > limits.maxBytesInFlightPerUid) {
    return false;
  }
  ofUid += more;
  bytesInFlight_ += more;
  c.charged = charge;
  counters_.bytesInFlight = bytesInFlight_;
  return true;
}

void MessageServer::Loop::read(Connection& c) {
  const std::size_t maxFds = maxPortsPerRequest();
  for (;;) {
    std::size_t want = chunk_.size();
    std::uint64_t total = 4;
    if (c.in.size() >= 4) {
      total = 4 + std::uint64_t(frameLength(c.in));
      want = std::min<std::uint64_t>(want, total - c.in.size());
      if (want == 0) break;
    } else {
      want = 4 - c.in.size();  // the length first, so that no byte past the frame is read
    }
    std::size_t got = 0, dropped = 0;
    mach::IoStatus status =
        mach::receiveBounded(c.fd.get(), chunk_.data(), want, &got, &c.fds, maxFds, &dropped);
    if (dropped > 0) {
      c.excessDescriptors = true;
      counters_.descriptorsRefused += dropped;
    }
    if (status != mach::IoStatus::Ok) return close(c.fd.get());
    if (got == 0) return;
    std::size_t needed = c.in.size() + got;
    if (needed > c.in.capacity()) {
      // Grow with the bytes that came, never to the declared length up front.
      std::size_t capacity = std::max<std::size_t>(needed, 2 * c.in.capacity());
      capacity = std::min<std::uint64_t>(std::max<std::size_t>(capacity, 64), total);
      if (!charge(c, capacity)) {
        ++counters_.overBudgetConnections;
        GW_LOG(1, "*** request of pid %d (uid %d) held too much memory; closed", int(c.peer.pid),
               int(c.peer.uid));
        return close(c.fd.get());
      }
      c.in.reserve(capacity);
    }
    c.in.insert(c.in.end(), chunk_.data(), chunk_.data() + got);
    if (c.in.size() == 4) {
      std::uint32_t length = frameLength(c.in);
      if (length < sizeof(mach_msg_header_t) || length > kMaxFrame) return close(c.fd.get());
    }
  }
  dispatch(c);
}

void MessageServer::Loop::dispatch(Connection& c) {
  std::span<const std::uint8_t> body(c.in.data() + 4, c.in.size() - 4);
  Dispatcher::Outcome outcome;
  if (c.excessDescriptors) {
    outcome = server_.dispatcher_.refuseMalformed(body, c.peer);
  } else {
    std::vector<int> fds;
    for (const UniqueFd& fd : c.fds) fds.push_back(fd.get());
    outcome = server_.dispatcher_.dispatch(body, fds, c.peer);
  }
  c.fds.clear();
  c.in = {};
  if ((bytesPerUid_[c.peer.uid] -= c.charged) == 0) bytesPerUid_.erase(c.peer.uid);
  bytesInFlight_ -= c.charged;
  c.charged = 0;
  counters_.bytesInFlight = bytesInFlight_;
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
    watch(c.fd.get(), EPOLLRDHUP, EPOLL_CTL_MOD);  // wait, but notice a client that gives up
    return;
  }
  finish(c);
}

// Writes what is left of the answer, or closes when there is none.
void MessageServer::Loop::finish(Connection& c) {
  if (!c.answering) return close(c.fd.get());
  c.writing = true;
  while (c.sent < c.out.size()) {
    ssize_t n = ::send(c.fd.get(), c.out.data() + c.sent, c.out.size() - c.sent,
                       MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      c.due = Clock::now() + server_.limits_.idleTimeout;
      watch(c.fd.get(), EPOLLOUT, EPOLL_CTL_MOD);
      return;
    }
    if (n < 0) return close(c.fd.get());
    c.sent += std::size_t(n);
  }
  close(c.fd.get());
}

void MessageServer::Loop::close(int fd) {  // the fd leaves epoll as it closes
  auto it = connections_.find(fd);
  if (it == connections_.end()) return;
  Connection& c = it->second;
  bytesPerUid_[c.peer.uid] -= c.charged;
  if (bytesPerUid_[c.peer.uid] == 0) bytesPerUid_.erase(c.peer.uid);
  bytesInFlight_ -= c.charged;
  if (--connectionsPerUid_[c.peer.uid] == 0) connectionsPerUid_.erase(c.peer.uid);
  connections_.erase(it);
  counters_.openConnections = connections_.size();
  counters_.bytesInFlight = bytesInFlight_;
  if (!listening_) resumeListener();  // a descriptor is free again
}

std::optional<MessageServer::Loop::Clock::time_point> MessageServer::Loop::nextDeadline() const {
  std::optional<Clock::time_point> earliest;
  if (!listening_) earliest = resumeAt_;
  for (const auto& [fd, c] : connections_) {
    if (!earliest || c.due < *earliest) earliest = c.due;
  }
  return earliest;
}

void MessageServer::Loop::expire() {
  Clock::time_point now = Clock::now();
  if (!listening_ && resumeAt_ <= now) resumeListener();
  std::vector<int> due;
  for (const auto& [fd, c] : connections_) {
    if (c.due <= now) due.push_back(fd);
  }
  for (int fd : due) {
    auto it = connections_.find(fd);
    if (it == connections_.end()) continue;
    Connection& c = it->second;
    // A delayed answer is due; anything else timed out.
    if (c.dispatched && !c.writing) {
      try {
        finish(c);
      } catch (const std::exception& e) {
        GW_LOG_CAUGHT(e);
        close(fd);
      }
    } else {
      ++counters_.timedOutConnections;
      close(fd);
    }
  }
}

}  // namespace gw::ipc
