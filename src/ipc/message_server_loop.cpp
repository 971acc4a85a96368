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

std::uint32_t frameLength(const std::uint8_t* in) {
  return std::uint32_t(in[0]) | std::uint32_t(in[1]) << 8 | std::uint32_t(in[2]) << 16 |
         std::uint32_t(in[3]) << 24;
}

enum class Frame { Partial, Complete, Malformed };

// Where the first `size` bytes of a connection stand: a length no request can have is malformed.
Frame frameState(const std::uint8_t* in, std::size_t size) {
  if (size < 4) return Frame::Partial;
  std::uint32_t length = frameLength(in);
  if (length < sizeof(mach_msg_header_t) || length > kMaxFrame) return Frame::Malformed;
  return size - 4 >= length ? Frame::Complete : Frame::Partial;
}

void putLength(std::uint8_t* out, std::uint32_t length) {
  out[0] = std::uint8_t(length);
  out[1] = std::uint8_t(length >> 8);
  out[2] = std::uint8_t(length >> 16);
  out[3] = std::uint8_t(length >> 24);
}

// Sends what the socket takes of the length prefix and reply, from byte `from` of the two, without
// waiting; the bytes sent, or -1 when the peer is gone.
ssize_t sendSome(int fd, const std::uint8_t (&prefix)[4], std::span<const std::uint8_t> reply,
                 std::size_t from) {
  iovec parts[2];
  int count = 0;
  if (from < 4) parts[count++] = {const_cast<std::uint8_t*>(prefix) + from, 4 - from};
  std::size_t inReply = from < 4 ? 0 : from - 4;
  parts[count++] = {const_cast<std::uint8_t*>(reply.data()) + inReply, reply.size() - inReply};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = std::size_t(count);
  for (;;) {
    ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) return n;
    if (errno == EINTR) continue;
    return errno == EAGAIN ? 0 : -1;
  }
}

std::uint64_t chargeFor(std::size_t capacity) {
  return capacity > kFreeBytes ? capacity - kFreeBytes : 0;
}

}  // namespace

MessageServer::Loop::Loop(MessageServer& server)
    : server_(server),
      counters_(*server.counters_),
      spare_(::eventfd(0, EFD_CLOEXEC)),
      chunk_(kChunkSize),
      arrivals_(kAcceptsPerWakeup),
      firstBytes_(kAcceptsPerWakeup * kFreeBytes) {}

void MessageServer::Loop::watch(int fd, std::uint32_t events, int op) {
  epoll_event ev{};
  ev.events = events;
  ev.data.fd = fd;
  ::epoll_ctl(server_.epoll_.get(), op, fd, &ev);
}

void MessageServer::Loop::handle(const epoll_event* events, int count) {
  ++counters_.loopWakeups;
  // Connections already held go first: a request whose bytes came before a newer connection was
  // made is served before that connection's.
  bool listenerReady = false;
  for (int i = 0; i < count; ++i) {
    int fd = events[i].data.fd;
    if (fd == server_.listener_.get()) {
      listenerReady = true;
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
  if (listenerReady) accept();
}

void MessageServer::Loop::acceptWaiting() {
  ++counters_.loopWakeups;
  if (listening_) accept();
}

// In two steps: first every waiting connection is accepted and its first bytes read, then the
// requests that came whole are served, all under one new read generation (see
// MessageServer::readGeneration()).
void MessageServer::Loop::accept() {
  std::size_t count = 0;
  bool exhausted = false;
  for (int i = 0; i < kAcceptsPerWakeup; ++i) {
    int fd = ::accept4(server_.listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      exhausted = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
      break;
    }
    Arrival& arrival = arrivals_[count];
    arrival.fd = UniqueFd(fd);
    counters_.openConnections = connections_.size() + count + 1;  // those in hand are open too
    bool taken = false;
    try {
      taken = receiveFirst(arrival, firstBytes_.data() + count * kFreeBytes);
    } catch (const std::exception& e) {  // std::bad_alloc above all: drop this one, serve on
      GW_LOG_CAUGHT(e);
    }
    if (!taken) {
      arrival = {};  // closes it
      continue;
    }
    ++count;
    // Requests are served in the order their connections came: one that is not all there yet
    // ends the sweep, so no later connection's request is served before it.
    if (frameState(firstBytes_.data() + (count - 1) * kFreeBytes, arrival.size) !=
        Frame::Complete) {
      break;
    }
  }
  ++readGeneration_;
  for (std::size_t i = 0; i < count; ++i) {
    try {
      admit(arrivals_[i], firstBytes_.data() + i * kFreeBytes);
    } catch (const std::exception& e) {  // the descriptor is closed on the way out
      GW_LOG_CAUGHT(e);
    }
    arrivals_[i] = {};
    counters_.openConnections = connections_.size() + (count - i - 1);
  }
  counters_.openConnections = connections_.size();
  if (exhausted) outOfDescriptors();
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

// A client has usually sent its whole request by the time it is accepted: it is read at once and,
// when it is all there, answered before the connection is ever registered with epoll. Only what
// has to wait (the rest of a request, a delayed or unfinished answer) becomes a Connection, held
// to the caps on connections per uid and in all.
bool MessageServer::Loop::receiveFirst(Arrival& arrival, std::uint8_t* bytes) {
  ucred cred{};
  socklen_t length = sizeof cred;
  if (::getsockopt(arrival.fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &length) == 0) {
    arrival.peer = {cred.uid, cred.gid, cred.pid};
  }
  // Up to the free allowance: the length and, in the same read, any request without regions.
  std::size_t dropped = 0;
  mach::IoStatus status = mach::receiveBounded(arrival.fd.get(), bytes, kFreeBytes, &arrival.size,
                                               &arrival.fds, maxPortsPerRequest(), &dropped);
  counters_.descriptorsRefused += dropped;
  arrival.excessDescriptors = dropped > 0;
  return status == mach::IoStatus::Ok && frameState(bytes, arrival.size) != Frame::Malformed;
}

void MessageServer::Loop::admit(Arrival& arrival, const std::uint8_t* bytes) {
  const Credentials peer = arrival.peer;
  if (frameState(bytes, arrival.size) == Frame::Complete) {
    ++counters_.accepted;
    std::span<const std::uint8_t> body(bytes + 4, frameLength(bytes));
    Dispatcher::Outcome outcome = serve(body, arrival.fds, peer, arrival.excessDescriptors);
    arrival.fds.clear();
    if (outcome.delay.count() == 0) {
      if (!outcome.answer) return;
      std::uint8_t prefix[4];
      putLength(prefix, std::uint32_t(outcome.reply.size()));
      ssize_t sent = sendSome(arrival.fd.get(), prefix, outcome.reply, 0);
      if (sent < 0 || std::size_t(sent) == 4 + outcome.reply.size()) return;
      // The socket is full: the rest goes out when epoll says it can.
      Connection* c = keep(std::move(arrival.fd), peer, EPOLLOUT);
      if (!c) return;
      answerLater(*c, std::move(outcome));
      c->sent = std::size_t(sent);
      c->writing = true;
      c->due = Clock::now() + server_.limits_.idleTimeout;
      return;
    }
    // Wait, but notice a client that gives up.
    Connection* c = keep(std::move(arrival.fd), peer, EPOLLRDHUP);
    if (c) answerLater(*c, std::move(outcome));
    return;
  }
  Connection* c = keep(std::move(arrival.fd), peer, EPOLLIN);
  if (!c) return;
  ++counters_.accepted;
  c->in.assign(bytes, bytes + arrival.size);
  c->fds = std::move(arrival.fds);
  c->excessDescriptors = arrival.excessDescriptors;
}

MessageServer::Loop::Connection* MessageServer::Loop::keep(UniqueFd fd, const Credentials& peer,
                                                           std::uint32_t events) {
  const Limits& limits = server_.limits_;
  // Root is held to the total only; anyone else first to the per-uid cap.
  if (peer.uid != 0 && connectionsPerUid_[peer.uid] >= limits.maxConnectionsPerUid &&
      !reclaimFrom(peer.uid)) {
    ++counters_.refusedConnections;
    return nullptr;
  }
  if (connections_.size() >= limits.maxConnections && !reclaimFromLargestHolder()) {
    ++counters_.refusedConnections;
    return nullptr;
  }
  int key = fd.get();
  watch(key, events, EPOLL_CTL_ADD);
  Connection& c = connections_[key];
  c.fd = std::move(fd);
  c.peer = peer;
  c.serial = nextSerial_++;
  c.due = Clock::now() + limits.idleTimeout;
  ++connectionsPerUid_[peer.uid];
  counters_.openConnections = connections_.size();
  return &c;
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
    std::uint64_t total = kFreeBytes;  // until the length is known: no more than the allowance
    if (c.in.size() >= 4) total = 4 + std::uint64_t(frameLength(c.in.data()));
    if (c.in.size() >= total) break;
    std::size_t want = std::min<std::uint64_t>(chunk_.size(), total - c.in.size());
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
      capacity = std::min<std::uint64_t>(std::max<std::size_t>(capacity, 64),
                                         std::max<std::uint64_t>(total, needed));
      if (!charge(c, capacity)) {
        ++counters_.overBudgetConnections;
        GW_LOG(1, "*** request of pid %d (uid %d) held too much memory; closed", int(c.peer.pid),
               int(c.peer.uid));
        return close(c.fd.get());
      }
      c.in.reserve(capacity);
    }
    c.in.insert(c.in.end(), chunk_.data(), chunk_.data() + got);
    if (frameState(c.in.data(), c.in.size()) == Frame::Malformed) return close(c.fd.get());
  }
  c.in.resize(4 + frameLength(c.in.data()));  // bytes past the only frame are not looked at
  dispatch(c);
}

Dispatcher::Outcome MessageServer::Loop::serve(std::span<const std::uint8_t> body,
                                               const std::vector<UniqueFd>& fds,
                                               const Credentials& peer, bool excessDescriptors) {
  if (excessDescriptors) return server_.dispatcher_.refuseMalformed(body, peer);
  std::vector<int> received;  // allocates only when descriptors came
  for (const UniqueFd& fd : fds) received.push_back(fd.get());
  return server_.dispatcher_.dispatch(body, received, peer);
}

void MessageServer::Loop::dispatch(Connection& c) {
  ++readGeneration_;  // read after the last sweep's requests
  std::span<const std::uint8_t> body(c.in.data() + 4, c.in.size() - 4);
  Dispatcher::Outcome outcome = serve(body, c.fds, c.peer, c.excessDescriptors);
  c.fds.clear();
  c.in = {};
  if ((bytesPerUid_[c.peer.uid] -= c.charged) == 0) bytesPerUid_.erase(c.peer.uid);
  bytesInFlight_ -= c.charged;
  c.charged = 0;
  counters_.bytesInFlight = bytesInFlight_;
  bool delayed = outcome.delay.count() > 0;
  answerLater(c, std::move(outcome));
  if (delayed) {
    watch(c.fd.get(), EPOLLRDHUP, EPOLL_CTL_MOD);  // wait, but notice a client that gives up
    return;
  }
  finish(c);
}

// Keeps the answer (length prefix and reply) in the connection, to be written by finish().
void MessageServer::Loop::answerLater(Connection& c, Dispatcher::Outcome outcome) {
  c.dispatched = true;
  c.answering = outcome.answer;
  if (outcome.answer) {
    c.out.resize(4 + outcome.reply.size());
    putLength(c.out.data(), std::uint32_t(outcome.reply.size()));
    std::copy(outcome.reply.begin(), outcome.reply.end(), c.out.begin() + 4);
  }
  if (outcome.delay.count() > 0) c.due = Clock::now() + outcome.delay;
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
