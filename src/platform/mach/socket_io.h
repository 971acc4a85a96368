// AF_UNIX stream I/O with deadlines, for the message transport and the message server.
//
// Every socket made here is close-on-exec and non-blocking; every wait is a poll() bounded by the
// caller's deadline, so nothing blocks past it. Sends use MSG_NOSIGNAL: a peer that went away
// gives a status, never SIGPIPE. Descriptors received with SCM_RIGHTS are close-on-exec and owned
// by the caller. Any thread.
#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fs/unique_fd.h"

namespace gw::mach {

using fs::UniqueFd;

// A point in time after which a wait gives up; Deadline::never() waits for ever.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;
  static Deadline never() { return Deadline(); }
  static Deadline afterMilliseconds(std::uint32_t ms) {
    Deadline d;
    d.infinite_ = false;
    d.at_ = Clock::now() + std::chrono::milliseconds(ms);
    return d;
  }
  bool isNever() const { return infinite_; }
  // Milliseconds left, rounded up, for poll(): -1 for never, 0 once passed.
  int pollTimeout() const;

 private:
  bool infinite_ = true;
  Clock::time_point at_{};
};

enum class IoStatus { Ok, TimedOut, Closed, Refused, Failed };

// The folder where services listen: $GATEWISE_BOOTSTRAP_DIR, else <root>/run/gatewise/bootstrap.
std::string bootstrapFolder();
// <bootstrap folder>/<name>; empty when name is not a safe single component or is too long for
// a socket address.
std::string serviceSocketPath(std::string_view name);

// Connects to the stream socket at path. Refused: nothing listens there (missing, not a socket,
// refused). TimedOut: the listener's queue stayed full until the deadline.
IoStatus connectUnix(const std::string& path, Deadline deadline, UniqueFd* out);

// Writes every byte of iov (the fds go with the first byte). Closed: the peer went away.
IoStatus sendAll(int fd, std::span<const iovec> iov, std::span<const int> fds, Deadline deadline);

// One non-blocking read of up to size bytes, for either end of a connection, bounding what the
// peer can hand over: *got is 0 with Ok when nothing is there yet; Closed at end of stream.
// Descriptors that arrive are appended to *fds (close-on-exec), never more than maxFds in all:
// the control buffer only has room for what may still be kept (at most kMaxRightsPerRead a
// read), so the kernel discards the rest before they reach the descriptor table. *dropped grows
// by the number discarded or closed (by one at least for a truncated read, whose count is
// unknown); a frame with dropped descriptors is short of those it was sent with.
inline constexpr std::size_t kMaxRightsPerRead = 16;
IoStatus receiveBounded(int fd, std::uint8_t* buffer, std::size_t size, std::size_t* got,
                        std::vector<UniqueFd>* fds, std::size_t maxFds, std::size_t* dropped);

// Reads exactly `size` bytes into buffer, waiting until the deadline, with receiveBounded's
// bounds on descriptors. Closed: end of stream (or reset) before size bytes.
IoStatus receiveExactly(int fd, std::uint8_t* buffer, std::size_t size, Deadline deadline,
                        std::vector<UniqueFd>* fds, std::size_t maxFds, std::size_t* dropped);

}  // namespace gw::mach
