// The daemon's launch subsystem: whether a user may start a program, what was refused, and the
// optional enforcement of the same decision on every exec.
//
// decide() answers from the user's application-access settings (AppAccessCache): root and users
// without a white list are unrestricted; the system's always-allowed tools pass; otherwise the
// program must match a white-list record (or one nested in it) by path, by its bundle folder, or
// by its bundle identifier, and when the record carries a designated requirement ("appID") the
// program must still satisfy it (GWValidateSignedApplication with the record's detached signature;
// results cached per program version). Reason codes: gatewise/launch_reasons.h.
//
// Refused launches (reported by launchers or refused by enforcement) are recorded as BlockedLaunch
// events and shown to the user as a "GatewiseStatusKindBlacklisted" status item for a minute.
//
// Enforcement (the host-wide boolean "enforceLaunches" in "com.morvane.Gatewise", default off)
// answers exec permission events of managed users' processes with decide(), cached by user and
// file identity (device, inode, change time) until the user's settings change.
//
// Loop thread only. Owned by the Manager.
#pragma once

#include <gatewise/launch_reasons.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/apps/app_access.h"
#include "daemon/apps/program_bundle.h"
#include "daemon/enforce/launch_enforcer.h"
#include "daemon/rate_limiter.h"
#include "daemon/status_item_info.h"

namespace gw::daemon {

class Manager;

inline constexpr const char* kEnforceLaunchesKey = "enforceLaunches";
// How long the status item of a refused launch is shown.
inline constexpr double kBlockedItemSeconds = 60;

struct LaunchDecision {
  bool allowed = true;
  std::int32_t reason = kGWLaunchUnrestricted;
  ProgramBundle program;
};

class AppLaunches {
 public:
  explicit AppLaunches(Manager& manager) : manager_(manager) {}
  AppLaunches(const AppLaunches&) = delete;
  AppLaunches& operator=(const AppLaunches&) = delete;

  LaunchDecision decide(uid_t uid, const std::string& path);
  bool hasRestrictions(uid_t uid);
  // A refused launch: recorded as an event (rate-limited per user) and shown as a status item.
  void launchBlocked(uid_t uid, const std::string& path, const LaunchDecision& decision);
  // Forgets what is known about path's signature and decides again: 0 when uid may now start it,
  // else the refusal's reason.
  std::int32_t detachedSignatureChanged(uid_t uid, const std::string& path);
  // Appends the user's blocked-launch item while it is shown.
  void addStatusItems(uid_t uid, plist::Date now, std::vector<StatusItemInfo>& items) const;

  // Turns enforcement on when the host setting asks for it (marking every program mount).
  void enforceIfConfigured();
  // Turns enforcement on with these marks (and the mounts that appear later, with followMounts);
  // false (and *error) when fanotify is unavailable.
  bool enforce(std::vector<std::string> mounts, std::vector<std::string> files, bool followMounts,
               std::string* error);
  LaunchEnforcer* enforcer() const { return enforcer_.get(); }
  // The enforcement decision for one exec (public for benchmarks).
  bool allowExec(uid_t uid, const ExecFile& file);

 private:
  struct Blocked {
    std::string name;
    plist::Date at;
  };
  using ExecKey = std::tuple<uid_t, dev_t, ino_t, std::int64_t>;
  struct CachedExec {
    std::uint64_t generation = 0;
    bool allowed = true;
  };

  // The short name of uid, cached (nullopt: no such user, or an unsafe name).
  const std::optional<std::string>& userNameOf(uid_t uid);
  // nullptr when uid has no restrictions to decide from. recentEnough: see AppAccessCache.
  const AppAccess* accessOf(uid_t uid, bool recentEnough = false);
  // Whether the program still satisfies the entry's requirement.
  bool satisfiesRequirement(const AppEntry& entry, const std::string& path,
                            const ProgramBundle& program);

  Manager& manager_;
  AppAccessCache access_;
  std::map<uid_t, std::optional<std::string>> names_;
  std::map<std::string, bool> validations_;  // by program path and version
  std::map<ExecKey, CachedExec> execs_;
  std::map<uid_t, Blocked> blocked_;
  RateLimiter<uid_t> eventLimiter_{20, 60};
  std::unique_ptr<LaunchEnforcer> enforcer_;
};

}  // namespace gw::daemon
