// Launch checks: whether a managed user has launch restrictions, and whether a program may start.
//
// The decisions are tutelad's. GWHasAppLaunchRestrictions reads the user's managed
// application-access settings itself ("com.morvane.applicationaccess.new", else the older
// "com.morvane.applicationaccess"); GWIsAppAllowedToLaunchExt allows the system's own tools at
// once and asks the daemon about everything else, allowing the launch whenever the daemon cannot
// be asked; GWAppLaunchWasBlocked reports a refused launch. Reason codes:
// gatewise/launch_reasons.h.
//
// Any thread. Restriction look-ups, daemon exchanges and the per-user cache are serialised by
// gGWALRLock (gatewise/core.h); the always-allowed test runs without it. The daemon is looked up
// afresh on every call. Nothing throws; failures are logged and allow.
#pragma once

#include <gatewise/export.h>
#include <gatewise/launch_reasons.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// The managed application-access domains: the current form and the older one.
inline constexpr const char kGWApplicationAccessDomain[] = "com.morvane.applicationaccess.new";
inline constexpr const char kGWOldApplicationAccessDomain[] = "com.morvane.applicationaccess";

// The programs that are always allowed, compared exactly with the path being launched (these are
// the running system's paths, not paths below the system root: they are compared, never opened):
//   "/usr/lib/systemd/systemd"  the service manager (/lib/systemd/systemd is the same file on
//                               merged-/usr systems; launchers that resolve links see this one)
//   "/usr/bin/systemctl"        its control tool
//   "/usr/sbin/modprobe"        the kernel-module loader
//   "/usr/sbin/rmmod"           the kernel-module unloader
//   "/usr/bin/gio"              the helper that mounts network URLs ("gio mount URL")
GW_EXPORT const std::vector<std::string>& GWAlwaysAllowedLaunchTools();

// Whether the user has launch restrictions: the current form's "gatewiseEnabled" when that file
// can be read, else whether the older form has "ItemsList" or "DenyList". The answer is written
// to the per-user cache under "gatewiseEnabled", while the cache is consulted under "hasALR", so
// every call reads the files again (kept on purpose: settings editors rely on fresh answers).
GW_EXPORT bool GWHasAppLaunchRestrictions(uid_t uid);

// Whether the program at path may start. first and second go to the daemon unchanged; *reason
// (when reason is not null) receives the reason code. True also when the daemon cannot be asked.
GW_EXTERN_C bool GWIsAppAllowedToLaunchExt(const char* path, std::int32_t first,
                                           std::int32_t second, std::int32_t* reason);
// GWIsAppAllowedToLaunchExt(path, first, 4, reason).
GW_EXTERN_C bool GWIsAppAllowedToLaunch(const char* path, std::int32_t first, std::int32_t* reason);
// Tells the daemon (one-way, 1000 ms) that the launch of path was refused. Nothing is sent when
// the daemon is not running.
GW_EXTERN_C void GWAppLaunchWasBlocked(const char* path, std::int32_t first);
