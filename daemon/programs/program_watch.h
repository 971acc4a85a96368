// Which programs the users the daemon cares about are running, learnt without polling.
//
// The kernel's process-events connector (a NETLINK_CONNECTOR socket joined to CN_IDX_PROC; root
// only) reports every exec and exit; the socket is an I/O source on the manager's loop. For an exec
// of a process whose owner (the owner of /proc/<pid>) the `wanted` predicate accepts, the program
// is read from /proc/<pid>/exe; an exit forgets the process. /proc is scanned once at start, and
// again when the socket reports that events were lost (ENOBUFS). Messages that do not come from
// the kernel are ignored. Without the connector (not root, an old kernel, a sandbox) the failure is
// logged once and the watch knows no processes: program limits then count nothing (fail open,
// like every other gate whose source is missing).
//
// execed() and exited() are public so tests feed events themselves. After each change `changed`
// is told the owner. Loop thread only; the loop must outlive the watch. At most
// kMaxWatchedProcesses processes are kept (further ones are not counted, logged once).
#pragma once

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/fs/unique_fd.h"

namespace gw::daemon {

inline constexpr std::size_t kMaxWatchedProcesses = 1 << 18;

struct RunningProgram {
  pid_t pid = 0;
  std::string path;
};

class ProgramWatch {
 public:
  using Wanted = std::function<bool(uid_t)>;
  using Changed = std::function<void(uid_t)>;

  // A watch fed by the connector on loop (or by nothing, when the connector is unavailable).
  static std::unique_ptr<ProgramWatch> start(sd_event* loop, Wanted wanted, Changed changed);
  // A watch fed only by execed() and exited() (tests).
  ProgramWatch(Wanted wanted, Changed changed);
  ~ProgramWatch();
  ProgramWatch(const ProgramWatch&) = delete;
  ProgramWatch& operator=(const ProgramWatch&) = delete;

  // The programs uid runs now.
  std::vector<RunningProgram> programsOf(uid_t uid) const;
  bool connected() const { return source_ != nullptr; }
  // Follows the kernel's process events only while someone is logged in: with nobody there, the
  // daemon is not woken by every exec on the machine. Turning on reads /proc afresh. A watch made
  // for tests (no loop) ignores this.
  void setListening(bool on);

  void execed(pid_t pid, uid_t uid, std::string path);
  void exited(pid_t pid);
  // Reads every process from /proc afresh.
  void rescan();

 private:
  struct Process {
    uid_t uid = 0;
    std::string path;
  };
  bool connect(sd_event* loop);
  // Looks the process up in /proc and keeps it when wanted.
  void learn(pid_t pid);
  static int onMessage(sd_event_source*, int fd, uint32_t, void* self);

  Wanted wanted_;
  Changed changed_;
  fs::UniqueFd socket_;
  sd_event* loop_ = nullptr;  // set by start(): the watch may connect and disconnect
  sd_event_source* source_ = nullptr;
  std::map<pid_t, Process> processes_;
  bool warnedFull_ = false;
};

}  // namespace gw::daemon
