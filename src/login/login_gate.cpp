#include <fts.h>
#include <gatewise/ipc.h>
#include <gatewise/log.h>
#include <gatewise/login.h>

#include <cstring>
#include <string>

#include "platform/fs/root.h"

namespace {

constexpr mach_msg_timeout_t kUserCanLoginTimeoutMs = 5000;

}  // namespace

bool GWUserCanLogin(uid_t uid, std::int32_t* reason, gw::plist::Date* date) {
  return gw::returningOnException(__func__, __LINE__, true, [&] {
    GW_LOG(2, "uid: %d", int(uid));
    mach_port_t port = 0;
    if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS ||
        port == 0) {
      GW_LOG(1, "tutelad is not running.");
      *reason = kGWLoginReasonDaemonUnavailable;
      return true;
    }
    std::int32_t seconds = 0, answer = 0;
    kern_return_t status =
        _GWMIGUserCanLogin(port, kUserCanLoginTimeoutMs, std::uint32_t(uid), &seconds, &answer);
    if (status != KERN_SUCCESS) {
      GW_LOG(0, "_GWMIGUserCanLogin failed with error %d.", status);
      *reason = kGWLoginReasonDaemonUnavailable;
      return true;
    }
    *reason = answer;
    if (seconds > 0)
      *date = gw::plist::Date{gw::plist::Date::now().secondsSinceReferenceDate + seconds};
    GW_LOG(2, "Returning: %@", answer != 0 ? "NO" : "YES");
    return answer == 0;
  });
}

bool GWExistsManagedUsers() {
  return gw::returningOnException(__func__, __LINE__, false, [] {
    GW_LOG(2, "Enter");
    std::string root = gw::fs::rootedPath("/Library/Managed Preferences");
    char* roots[] = {root.data(), nullptr};
    // Logical walk (following links), not crossing devices, unsorted: the first directory met in
    // pre-order answers, and that is the root itself when it is a folder.
    FTS* walk = ::fts_open(roots, FTS_LOGICAL | FTS_XDEV, nullptr);
    if (!walk) return false;
    bool found = false;
    while (FTSENT* entry = ::fts_read(walk)) {
      if (std::strcmp(entry->fts_name, ".DS_Store") == 0) continue;
      if (entry->fts_info == FTS_D) {
        found = true;
        break;
      }
    }
    ::fts_close(walk);
    return found;
  });
}

void GWRegisterUserAgentPort(mach_port_t) {
  GW_LOG(0, "GWRegisterUserAgentPort is no longer needed. Please stop using it.");
}
