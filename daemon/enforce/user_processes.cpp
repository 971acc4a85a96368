#include "daemon/enforce/user_processes.h"

#include <dirent.h>
#include <fcntl.h>
#include <gatewise/log.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/fs/unique_fd.h"

namespace gw::daemon {
namespace {

constexpr std::size_t kMaxStatusBytes = 16384;

std::atomic<bool> gWarnedNoPidfd{false};

int openPidfd(pid_t pid) { return int(::syscall(SYS_pidfd_open, pid, 0)); }

int sendThroughPidfd(int pidfd, int signal) {
  return int(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0));
}

std::optional<pid_t> pidFromName(std::string_view name) {
  pid_t pid = 0;
  auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  if (error != std::errc() || end != name.data() + name.size() || pid <= 0) return std::nullopt;
  return pid;
}

// The real uid from /proc/<pid>/status, or nullopt when it cannot be read (the process is gone)
// or the process has ended and waits to be reaped (nothing left to signal).
std::optional<uid_t> realUidOfLiveProcess(int procFolder, pid_t pid) {
  std::string relative = std::to_string(pid) + "/status";
  fs::UniqueFd fd(::openat(procFolder, relative.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd) return std::nullopt;
  std::string text(kMaxStatusBytes, '\0');
  ssize_t n = ::read(fd.get(), text.data(), text.size());
  if (n <= 0) return std::nullopt;
  text.resize(std::size_t(n));
  std::size_t state = text.find("\nState:");
  if (state != std::string::npos) {
    std::size_t letter = text.find_first_not_of(" \t", state + 7);
    if (letter != std::string::npos && (text[letter] == 'Z' || text[letter] == 'X')) {
      return std::nullopt;
    }
  }
  std::size_t line = text.find("\nUid:");
  if (line == std::string::npos) return std::nullopt;
  std::size_t digits = text.find_first_not_of(" \t", line + 5);
  if (digits == std::string::npos) return std::nullopt;
  uid_t uid = 0;
  auto [end, error] = std::from_chars(text.data() + digits, text.data() + text.size(), uid);
  if (error != std::errc()) return std::nullopt;
  return uid;
}

// Signals pid when it is the user's. True when a signal went to it.
bool signalIfOwnedBy(int procFolder, pid_t pid, uid_t uid, int signal) {
  fs::UniqueFd pidfd(openPidfd(pid));
  if (!pidfd) {
    if (errno == ESRCH) return false;  // gone already
    // No pidfds (an old kernel) or none to spare: the signal goes by pid, right after the check.
    if (errno == ENOSYS && !gWarnedNoPidfd.exchange(true)) {
      GW_LOG(0, "*** no pidfds on this kernel; signalling processes by pid");
    }
  }
  std::optional<uid_t> owner = realUidOfLiveProcess(procFolder, pid);
  if (!owner || *owner != uid) return false;
  // The pidfd still names the process whose owner was read: if that one has ended, the send
  // fails with ESRCH even when its pid has been taken again.
  int r = pidfd ? sendThroughPidfd(pidfd.get(), signal) : ::kill(pid, signal);
  return r == 0;
}

}  // namespace

std::optional<std::size_t> signalProcessesOfUser(uid_t uid, int signal) {
  fs::UniqueFd procFolder(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // The listing takes its own descriptor; procFolder stays for the per-process look-ups.
  fs::UniqueFd listingFd(procFolder ? ::dup(procFolder.get()) : -1);
  DIR* listing = listingFd ? ::fdopendir(listingFd.get()) : nullptr;
  if (listing) listingFd.release();
  if (!listing) {
    GW_LOG(0, "*** cannot list /proc: %s", std::strerror(errno));
    return std::nullopt;
  }
  const pid_t self = ::getpid();
  std::size_t signalled = 0;
  while (const dirent* entry = ::readdir(listing)) {
    std::optional<pid_t> pid = pidFromName(entry->d_name);
    if (!pid || *pid == 1 || *pid == self) continue;
    if (signalIfOwnedBy(procFolder.get(), *pid, uid, signal)) ++signalled;
  }
  ::closedir(listing);
  return signalled;
}

}  // namespace gw::daemon
