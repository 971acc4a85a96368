// Runs a piece of a test in a forked child: for failures that need a process of their own (a file
// size limit, an unprivileged user). The tests run as root in CI, where permission bits alone
// refuse nothing, so the child drops to an unprivileged user to meet a read-only folder.
#pragma once

#include <functional>

namespace gwtest {

// Forks, runs body in the child and returns its result as the child's exit status (0..255), or -1
// if the child died by a signal or could not be started.
int runInChild(const std::function<int()>& body);

// In a child: switches to uid/gid 65534 when running as root (otherwise the caller is unprivileged
// already). Returns false if the switch failed.
bool dropToUnprivilegedUser();

}  // namespace gwtest
