#include "support/child_process.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace gwtest {

int runInChild(const std::function<int()>& body) {
  pid_t pid = ::fork();
  if (pid < 0) return -1;
  if (pid == 0) ::_exit(body() & 0xff);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool dropToUnprivilegedUser() {
  if (::geteuid() != 0) return true;
  constexpr uid_t kNobody = 65534;
  return ::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0;
}

}  // namespace gwtest
