// Launch enforcement: fanotify exec permission events (FAN_OPEN_EXEC_PERM), answered on the
// daemon's loop.
//
// Every time a process opens a file on a marked mount (or a marked file) to execute it, the
// kernel holds the exec until the enforcer answers. The enforcer allows at once when the process's
// real uid is root, when the decider cannot be reached, or on any internal failure (a gate that
// fails open must fail open everywhere) and for the system's dynamic loader (which the kernel
// opens for execution on every exec of a dynamically linked program); otherwise it asks the decider
// with the process's real uid and the file (descriptor, identity) and answers accordingly. Every
// event is answered before the handler returns, and every event descriptor is closed. The decider
// must not block: it runs on the loop, and while it runs every exec on the marked mounts waits.
//
// If the daemon dies, the kernel drops its fanotify descriptor and lets every held exec through,
// so a killed daemon never leaves execs hanging.
//
// create() fails (nullptr and *error) without CAP_SYS_ADMIN or on a kernel without fanotify exec
// permission events (EPERM, ENOSYS, EINVAL): callers then run without enforcement. Loop thread
// only; not copyable.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/fs/unique_fd.h"

namespace gw::daemon {

// The file an exec opens, as its event describes it.
struct ExecFile {
  int fd = -1;  // valid only during the call
  dev_t device = 0;
  ino_t inode = 0;
  std::int64_t changeNanoseconds = 0;
};

struct LaunchEnforcerOptions {
  // Folders whose mounts are marked whole (FAN_MARK_MOUNT). A mount that cannot be marked is
  // logged and skipped; creation fails only when none could be.
  std::vector<std::string> mounts;
  // Also marks every program mount that appears later (/proc/self/mountinfo is watched), such as
  // the per-user runtime folders mounted at login.
  bool followMounts = false;
  // Files marked one by one (tests mark only their own programs).
  std::vector<std::string> files;
  // Whether uid may execute file (pid is the process that asks). Never called for root.
  std::function<bool(uid_t uid, pid_t pid, const ExecFile& file)> decide;
};

class LaunchEnforcer {
 public:
  static std::unique_ptr<LaunchEnforcer> create(sd_event* loop, LaunchEnforcerOptions options,
                                                std::string* error);
  ~LaunchEnforcer();
  LaunchEnforcer(const LaunchEnforcer&) = delete;
  LaunchEnforcer& operator=(const LaunchEnforcer&) = delete;

  // Reads and answers every pending event now (the loop calls this when the descriptor is
  // readable; benchmarks and tests may call it themselves).
  void drain();
  // The fanotify descriptor (to poll it without a loop).
  int descriptor() const { return fanotify_.get(); }
  std::uint64_t answered() const { return answered_; }
  std::uint64_t denied() const { return denied_; }

  // The folders of every mount of a real file system (no /proc, /sys, cgroups, ...), as
  // /proc/self/mountinfo lists them: what production marks.
  static std::vector<std::string> programMounts();

 private:
  LaunchEnforcer() = default;
  static int onReadable(sd_event_source*, int, uint32_t, void* self);
  static int onMountsChanged(sd_event_source*, int, uint32_t, void* self);
  bool answer(int fd, bool allow);
  // Marks the mount of each folder; how many could be marked.
  std::size_t markMounts(const std::vector<std::string>& folders);

  fs::UniqueFd fanotify_;
  sd_event_source* source_ = nullptr;
  sd_event_source* mountWatch_ = nullptr;
  fs::UniqueFd mountInfo_;
  LaunchEnforcerOptions options_;
  std::uint64_t answered_ = 0;
  std::uint64_t denied_ = 0;
  std::uint64_t failuresLogged_ = 0;
  std::optional<std::pair<dev_t, ino_t>> loader_;  // the dynamic loader, always allowed
};

// The real uid of process pid (from /proc/<pid>/status); nullopt when it has gone.
std::optional<uid_t> realUidOf(pid_t pid);

}  // namespace gw::daemon
