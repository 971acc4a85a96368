// The system tools a launcher may always start (listed and explained in gatewise/launch.h).
#include <gatewise/launch.h>

const std::vector<std::string>& GWAlwaysAllowedLaunchTools() {
  // Built on first use and kept for the life of the process.
  static const std::vector<std::string> tools = {
      "/usr/lib/systemd/systemd", "/usr/bin/systemctl", "/usr/sbin/modprobe",
      "/usr/sbin/rmmod",          "/usr/bin/gio",
  };
  return tools;
}
