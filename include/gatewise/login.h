// The login gate: may a managed user log in now?
//
// GWUserCanLogin asks the daemon (looked up afresh on every call) with a 5000 ms time-out. Login is
// never blocked because the daemon is absent or failing: the answer is then YES with reason 4.
// GWExistsManagedUsers tells whether "<root>/Library/Managed Preferences" exists as a folder.
// GWRegisterUserAgentPort is obsolete and only logs. No state, no locks: any thread.
#pragma once

#include <gatewise/export.h>
#include <gatewise/mach.h>
#include <gatewise/plist.h>
#include <sys/types.h>

#include <cstdint>
#include <string_view>

// Reason stored when the daemon could not be asked (the user is let in).
inline constexpr std::int32_t kGWLoginReasonDaemonUnavailable = 4;

// YES when the daemon answers reason 0, or when it cannot be asked (reason 4); NO otherwise.
// *reason is always written. *date (which must be valid) is written only when the daemon returned
// a positive number of seconds: the moment that many seconds from now. Daemon reasons other than
// 0 and 4 are passed through unchanged.
GW_EXPORT bool GWUserCanLogin(uid_t uid, std::int32_t* reason, gw::plist::Date* date);

// YES when "/Library/Managed Preferences" (below the system root) is a directory, even an empty
// one; NO when it is missing or not a directory.
GW_EXPORT bool GWExistsManagedUsers();

// Obsolete: logs that it is no longer needed and sends nothing.
GW_EXPORT void GWRegisterUserAgentPort(mach_port_t agentPort = 0);

// The administrator login override. The notification posted when a managed user's login status
// changed; user info {"userName": short name}.
inline constexpr const char kGWLoginStatusChangedNotification[] =
    "GatewiseLoginStatusChangedNotification";
// The authorization right an override asks for.
inline constexpr const char kGWLoginOverrideRight[] = "com.morvane.gatewise.loginwindow.override";

// YES when the user may log in already (the notification is posted), or when an administrator
// grants the override right: the granted minutes ("time" of the answer; one hour when there are
// none, unlimited for 0xFFFFFFFF) are added to today's computer overrides, the daemon is asked to
// reread them and the notification is posted. NO, with nothing written or posted, when the right
// is refused or cannot be asked for. Asks through the process's authorization provider (see
// gatewise/auth.h) and may wait for an administrator. Any thread.
GW_EXPORT bool GWAuthorizeManagedUserLogin(uid_t uid, std::string_view userName);
