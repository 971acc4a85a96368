// GWUtilities class operations that poke the daemon with one simple message each.
#include <gatewise/ipc.h>
#include <gatewise/log.h>

namespace {

using UidRoutine = kern_return_t (*)(mach_port_t, gw_timeout_t, uint32_t);

// Looks the daemon up afresh; without it, logs "<selector> daemon is not running." and returns the
// look-up's status.
kern_return_t lookUpDaemon(const char* function, const char* selector, mach_port_t* port) {
  *port = 0;
  kern_return_t status = bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, port);
  if (status == KERN_SUCCESS && *port != 0) return KERN_SUCCESS;
  gw::GWFrameworkLog(0, function, __LINE__, "%s daemon is not running.", selector);
  return status != KERN_SUCCESS ? status : MACH_SEND_INVALID_DEST;
}

kern_return_t sendUid(const char* function, const char* selector, UidRoutine routine, uid_t uid) {
  mach_port_t port;
  kern_return_t status = lookUpDaemon(function, selector, &port);
  if (status != KERN_SUCCESS) return status;
  return routine(port, MACH_MSG_TIMEOUT_NONE, uid);  // a blocking send, as the daemon expects
}

}  // namespace

namespace GWUtilities {

kern_return_t fcdReadOverridesFor(uid_t uid) {
  return sendUid("+[GWUtilities fcdReadOverridesFor:]", "fcdReadOverridesFor:", _GWMIGReadOverrides,
                 uid);
}

kern_return_t fcdReadSettingsFor(uid_t uid) {
  return sendUid("+[GWUtilities fcdReadSettingsFor:]", "fcdReadSettingsFor:", _GWMIGReadSettings,
                 uid);
}

kern_return_t fcdSaveUsageDataFor(uid_t uid) {
  return sendUid("+[GWUtilities fcdSaveUsageDataFor:]", "fcdSaveUsageDataFor:", _GWMIGSaveUsageData,
                 uid);
}

kern_return_t fcdResetUsageDataFor(uid_t uid) {
  return sendUid("+[GWUtilities fcdResetUsageDataFor:]",
                 "fcdResetUsageDataFor:", _GWMIGResetUsageData, uid);
}

kern_return_t fcdListeningStatusChanged() {
  mach_port_t port;
  kern_return_t status =
      lookUpDaemon("+[GWUtilities fcdListeningStatusChanged]", "fcdListeningStatusChanged:", &port);
  if (status != KERN_SUCCESS) return status;
  return _GWMIGListeningStatusChanged(port, MACH_MSG_TIMEOUT_NONE);
}

}  // namespace GWUtilities
