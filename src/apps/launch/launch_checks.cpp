// GWIsAppAllowedToLaunchExt and GWAppLaunchWasBlocked: the launcher's questions to the daemon.
#include <gatewise/core.h>
#include <gatewise/ipc.h>
#include <gatewise/launch.h>
#include <gatewise/log.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace {

constexpr gw_timeout_t kCanLaunchTimeoutMs = 5000;
constexpr gw_timeout_t kLaunchBlockedTimeoutMs = 1000;
// What GWIsAppAllowedToLaunch hands on as the second integer.
constexpr std::int32_t kDefaultSecond = 4;

bool isAlwaysAllowed(const char* path) {
  const std::vector<std::string>& tools = GWAlwaysAllowedLaunchTools();
  return std::find(tools.begin(), tools.end(), path) != tools.end();
}

mach_port_t lookUpDaemon() {
  mach_port_t port = 0;
  if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS) return 0;
  return port;
}

}  // namespace

bool GWIsAppAllowedToLaunchExt(const char* path, std::int32_t first, std::int32_t second,
                               std::int32_t* reason) {
  std::int32_t ignored = 0;
  if (reason == nullptr) reason = &ignored;
  if (path == nullptr) {
    GW_LOG(0, "*** no path given, allowing app");
    *reason = gw::kGWLaunchDaemonNotAsked;
    return true;
  }
  return gw::returningOnException(__func__, __LINE__, true, [&] {
    if (isAlwaysAllowed(path)) {
      *reason = gw::kGWLaunchAlwaysAllowedTool;
      return true;
    }
    std::lock_guard<gw::SpinLock> hold(gGWALRLock);
    GW_LOG(2, "path: %s", path);
    mach_port_t port = lookUpDaemon();
    if (port == 0) {
      GW_LOG(0, "*** tud port was 0, allowing app");
      *reason = gw::kGWLaunchDaemonNotAsked;
      return true;
    }
    GW_LOG(2, "Sending mach message to tud at port %d", int(port));
    std::int32_t result = 1, answer = 0;
    kern_return_t status = _GWMIGAppCanLaunch(port, kCanLaunchTimeoutMs, path,
                                              mach_msg_type_number_t(std::strlen(path)), first,
                                              second, &result, &answer);
    if (status != KERN_SUCCESS) {
      GW_LOG(0, "*** _GWMIGAppCanLaunch failed with error %d.", status);
      answer = gw::kGWLaunchDaemonNotAsked;
      result = 1;
    }
    *reason = answer;
    GW_LOG(3, "_GWMIGAppCanLaunch returned result: %d reason: %d for path: %s", result, answer,
           path);
    if (result == 0) {
      GW_LOG(2, "*** launch of %s denied ***", path);
    } else {
      GW_LOG(3, "launch of %s allowed", path);
    }
    return result != 0;
  });
}

bool GWIsAppAllowedToLaunch(const char* path, std::int32_t first, std::int32_t* reason) {
  return GWIsAppAllowedToLaunchExt(path, first, kDefaultSecond, reason);
}

void GWAppLaunchWasBlocked(const char* path, std::int32_t first) {
  if (path == nullptr) return;
  gw::returningOnException(__func__, __LINE__, 0, [&] {
    std::lock_guard<gw::SpinLock> hold(gGWALRLock);
    GW_LOG(2, "path: %s", path);
    if (mach_port_t port = lookUpDaemon()) {
      _GWMIGAppLaunchBlocked(port, kLaunchBlockedTimeoutMs, path,
                             mach_msg_type_number_t(std::strlen(path)), first, 0);
    }
    return 0;
  });
}
