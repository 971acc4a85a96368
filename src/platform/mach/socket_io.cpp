#include "platform/mach/socket_io.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "platform/fs/root.h"

namespace gw::mach {
namespace {

bool waitFor(int fd, short events, Deadline deadline) {
  for (;;) {
    pollfd p{fd, events, 0};
    int n = ::poll(&p, 1, deadline.pollTimeout());
    if (n > 0) return true;
    if (n == 0) return false;
    if (errno != EINTR) return true;  // let the following call report the error
  }
}

// Connects a blocking-mode copy of the wait: AF_UNIX connect() waits for room in a full listen
// queue for at most SO_SNDTIMEO, which is how a connect gets a deadline.
int connectWaiting(int fd, const sockaddr_un& address, socklen_t length, Deadline deadline) {
  int flags = ::fcntl(fd, F_GETFL);
  ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  int timeout = deadline.pollTimeout();
  if (timeout >= 0) {
    if (timeout == 0) timeout = 1;  // 0 would mean "for ever"
    timeval tv{timeout / 1000, (timeout % 1000) * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  }
  int rc;
  do {
    rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length);
  } while (rc != 0 && errno == EINTR);
  int saved = errno;
  timeval zero{0, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &zero, sizeof zero);
  ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  errno = saved;
  return rc;
}

}  // namespace

int Deadline::pollTimeout() const {
  if (infinite_) return -1;
  auto left = at_ - Clock::now();
  if (left <= Clock::duration::zero()) return 0;
  auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return ms > 0x7fffffff ? 0x7fffffff : int(ms);
}

std::string bootstrapFolder() {
  if (const char* dir = ::secure_getenv("GATEWISE_BOOTSTRAP_DIR"); dir && *dir) return dir;
  return fs::rootedPath("/run/gatewise/bootstrap");
}

std::string serviceSocketPath(std::string_view name) {
  if (!fs::isSafeName(name)) return {};
  std::string path = bootstrapFolder();
  path += '/';
  path += name;
  if (path.size() >= sizeof(sockaddr_un::sun_path)) return {};
  return path;
}

IoStatus connectUnix(const std::string& path, Deadline deadline, UniqueFd* out) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return IoStatus::Refused;
  std::memcpy(address.sun_path, path.data(), path.size());
  socklen_t length = socklen_t(offsetof(sockaddr_un, sun_path) + path.size() + 1);

  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return IoStatus::Failed;
  int rc;
  do {
    rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length);
  } while (rc != 0 && errno == EINTR);
  // A full listen queue: wait for room, but no longer than the deadline.
  if (rc != 0 && errno == EAGAIN && deadline.pollTimeout() != 0) {
    rc = connectWaiting(fd.get(), address, length, deadline);
  }
  if (rc != 0) {
    if (errno == EAGAIN || errno == EINPROGRESS) return IoStatus::TimedOut;
    if (errno == ENOMEM || errno == ENOBUFS || errno == EMFILE) return IoStatus::Failed;
    return IoStatus::Refused;
  }
  *out = std::move(fd);
  return IoStatus::Ok;
}

IoStatus sendAll(int fd, std::span<const iovec> iov, std::span<const int> fds, Deadline deadline) {
  std::vector<iovec> pending(iov.begin(), iov.end());
  std::size_t first = 0;
  bool fdsSent = fds.empty();
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 16)];
  if (fds.size() > 16) return IoStatus::Failed;
  while (first < pending.size()) {
    if (pending[first].iov_len == 0) {
      ++first;
      continue;
    }
    msghdr message{};
    message.msg_iov = pending.data() + first;
    message.msg_iovlen = std::min<std::size_t>(pending.size() - first, IOV_MAX);
    if (!fdsSent) {
      std::memset(control, 0, sizeof control);
      message.msg_control = control;
      message.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
      cmsghdr* c = CMSG_FIRSTHDR(&message);
      c->cmsg_level = SOL_SOCKET;
      c->cmsg_type = SCM_RIGHTS;
      c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
      std::memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
    }
    ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) {
        if (deadline.pollTimeout() == 0 || !waitFor(fd, POLLOUT, deadline)) {
          return IoStatus::TimedOut;
        }
        continue;
      }
      if (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN) return IoStatus::Closed;
      if (errno == EBADF) return IoStatus::Failed;
      return IoStatus::Failed;
    }
    fdsSent = true;
    std::size_t left = std::size_t(n);
    while (first < pending.size() && left >= pending[first].iov_len) {
      left -= pending[first].iov_len;
      ++first;
    }
    if (left > 0) {
      pending[first].iov_base = static_cast<char*>(pending[first].iov_base) + left;
      pending[first].iov_len -= left;
    }
  }
  return IoStatus::Ok;
}

IoStatus receiveBounded(int fd, std::uint8_t* buffer, std::size_t size, std::size_t* got,
                        std::vector<UniqueFd>* fds, std::size_t maxFds, std::size_t* dropped) {
  *got = 0;
  const std::size_t room =
      std::min(kMaxRightsPerRead, maxFds > fds->size() ? maxFds - fds->size() : 0);
  for (;;) {
    iovec v{buffer, size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxRightsPerRead)];
    msghdr message{};
    message.msg_iov = &v;
    message.msg_iovlen = 1;
    if (room > 0) {  // no room at all: no control buffer, and the kernel keeps every right out
      message.msg_control = control;
      message.msg_controllen = CMSG_SPACE(sizeof(int) * room);
    }
    ssize_t n = ::recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return IoStatus::Ok;
      if (errno == ECONNRESET) return IoStatus::Closed;
      return IoStatus::Failed;
    }
    // The kernel closes what did not fit; the frame is short of descriptors it was sent with.
    if (message.msg_flags & MSG_CTRUNC) ++*dropped;
    if (room > 0) {
      for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        std::size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
          int received;
          std::memcpy(&received, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
          if (fds->size() < maxFds) {
            fds->emplace_back(received);
          } else {
            ::close(received);
            ++*dropped;
          }
        }
      }
    }
    if (n == 0 && size > 0) return IoStatus::Closed;
    *got = std::size_t(n);
    return IoStatus::Ok;
  }
}

IoStatus receiveExactly(int fd, std::uint8_t* buffer, std::size_t size, Deadline deadline,
                        std::vector<UniqueFd>* fds, std::size_t maxFds, std::size_t* dropped) {
  std::size_t have = 0;
  while (have < size) {
    std::size_t got = 0;
    IoStatus status = receiveBounded(fd, buffer + have, size - have, &got, fds, maxFds, dropped);
    if (status != IoStatus::Ok) return status;
    if (got == 0) {
      if (deadline.pollTimeout() == 0 || !waitFor(fd, POLLIN, deadline)) {
        return IoStatus::TimedOut;
      }
      continue;
    }
    have += got;
  }
  return IoStatus::Ok;
}

}  // namespace gw::mach
