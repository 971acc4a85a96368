#include "events/managed_client_agent.h"

#include <gatewise/events.h>
#include <gatewise/log.h>
#include <spawn.h>
#include <sys/stat.h>

#include <cstring>

#include "platform/fs/root.h"

extern char** environ;

namespace gw::events {

std::string managedClientAgentPath() { return fs::rootedPath("/usr/libexec/gatewise/regentry"); }

pid_t startManagedClientAgent(uid_t uid) {
  std::string path = managedClientAgentPath();
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 0;
  std::string user = "-u " + std::to_string(uid);
  char force[] = "-f";
  char* argv[] = {path.data(), user.data(), force, nullptr};
  pid_t pid = 0;
  int error = ::posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ);
  if (error != 0) {
    GW_LOG(0, "Exception launching task %@: %@", path, std::string(std::strerror(error)));
    return 0;
  }
  return pid;
}

}  // namespace gw::events

void GWUtilities::kickQRMDForUID(uid_t uid) { gw::events::startManagedClientAgent(uid); }
