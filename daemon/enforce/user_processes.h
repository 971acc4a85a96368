// Signalling every process of one user, found by walking /proc.
//
// A process belongs to the user when the real uid of its "Uid:" line in /proc/<pid>/status is the
// user's. Pid 1 and the calling process are never signalled. Each process is pinned with a pidfd
// before its owner is read and is signalled through that pidfd, so a pid that a new process took
// over in the meantime is never hit; on kernels without pidfds the signal goes by pid after the
// check (logged once). Thread-safe (no shared state but the logged-once flag).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>

namespace gw::daemon {

// The number of processes signalled, or nullopt when /proc cannot be read (logged).
std::optional<std::size_t> signalProcessesOfUser(uid_t uid, int signal);

}  // namespace gw::daemon
