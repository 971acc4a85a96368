#include "daemon/limits/settings_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace gw::daemon {
namespace {

constexpr std::uint32_t kChanges = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM |
                                   IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_DELETE_SELF |
                                   IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;

}  // namespace

SettingsWatch::SettingsWatch() : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

bool SettingsWatch::watch(std::span<const std::string> files) {
  if (!fd_) return false;
  for (const std::string& file : files) {
    std::filesystem::path folder = std::filesystem::path(file).parent_path();
    for (;;) {
      if (::inotify_add_watch(fd_.get(), folder.c_str(), kChanges) >= 0) break;
      // Missing (or not a folder yet): watch for it to appear in the folder above.
      if ((errno != ENOENT && errno != ENOTDIR) || !folder.has_relative_path()) return false;
      folder = folder.parent_path();
    }
  }
  return true;
}

bool SettingsWatch::changed() {
  if (!fd_) return true;
  alignas(inotify_event) char events[4096];
  bool any = false;
  for (;;) {
    ssize_t n = ::read(fd_.get(), events, sizeof events);
    if (n > 0) {
      any = true;  // every event is a change, IN_Q_OVERFLOW and IN_IGNORED included
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    break;  // EAGAIN: nothing (more) pending
  }
  if (any) ++generation_;
  return any;
}

}  // namespace gw::daemon
