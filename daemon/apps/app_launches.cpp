#include "daemon/apps/app_launches.h"

#include <gatewise/core.h>
#include <gatewise/launch.h>
#include <gatewise/log.h>
#include <gatewise/signing.h>
#include <gatewise/status.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "daemon/events/event.h"
#include "daemon/manager.h"
#include "platform/fs/root.h"
#include "platform/prefs/host_preferences.h"

namespace gw::daemon {
namespace {

// Bounds of the caches; past them a cache starts afresh (forgetting costs only a re-read).
constexpr std::size_t kMaxCachedNames = 65536;
constexpr std::size_t kMaxCachedExecs = 65536;
constexpr std::size_t kMaxCachedValidations = 4096;

std::uint64_t monotonicMicroseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::uint64_t(now.tv_sec) * 1'000'000 + std::uint64_t(now.tv_nsec) / 1000;
}

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// The path the descriptor was opened by (the kernel's view, links resolved); "" when unknown.
std::string pathOfDescriptor(int fd) {
  char link[40];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[4096];
  ssize_t n = ::readlink(link, target, sizeof target - 1);
  if (n <= 0) return {};
  return std::string(target, std::size_t(n));
}

}  // namespace

const std::optional<std::string>& AppLaunches::userNameOf(uid_t uid) {
  auto it = names_.find(uid);
  if (it != names_.end()) return it->second;
  if (names_.size() >= kMaxCachedNames) names_.clear();
  std::optional<std::string> name = GetUserShortNameForUID(uid);
  if (name && !fs::isSafeName(*name)) name.reset();
  return names_[uid] = std::move(name);
}

const AppAccess* AppLaunches::accessOf(uid_t uid, bool recentEnough) {
  if (uid == 0) return nullptr;
  const std::optional<std::string>& name = userNameOf(uid);
  if (!name) return nullptr;
  const AppAccess& access = access_.accessFor(*name, recentEnough);
  return access.mode == AppAccess::Mode::Unrestricted ? nullptr : &access;
}

bool AppLaunches::hasRestrictions(uid_t uid) {
  const AppAccess* access = accessOf(uid);
  return access && access->mode != AppAccess::Mode::Unreadable;
}

bool AppLaunches::satisfiesRequirement(const AppEntry& entry, const std::string& path,
                                       const ProgramBundle& program) {
  const std::string& target = program.folder.empty() ? path : program.folder;
  FileStamp version = stampOf(path);
  std::string key = target + '\0' + std::to_string(version.device) + ':' +
                    std::to_string(version.inode) + ':' + std::to_string(version.size) + ':' +
                    std::to_string(version.changeNanoseconds) + '\0' +
                    std::string(entry.requirement->begin(), entry.requirement->end());
  if (auto it = validations_.find(key); it != validations_.end()) return it->second;
  if (validations_.size() >= kMaxCachedValidations) validations_.clear();
  GWValidation result =
      GWValidateSignedApplicationWithReason(target, entry.detachedSignature, entry.requirement, 0);
  if (!result.valid) {
    GW_LOG(1, "*** %s does not satisfy its white-list requirement: %s", target.c_str(),
           result.reason.c_str());
  }
  return validations_[key] = result.valid;
}

LaunchDecision AppLaunches::decide(uid_t uid, const std::string& askedPath) {
  LaunchDecision decision;
  const std::vector<std::string>& tools = GWAlwaysAllowedLaunchTools();
  if (std::find(tools.begin(), tools.end(), askedPath) != tools.end()) {
    decision.reason = kGWLaunchAlwaysAllowedTool;
    return decision;
  }
  const AppAccess* access = accessOf(uid);
  if (!access) return decision;
  if (access->mode == AppAccess::Mode::Unreadable) {
    decision.reason = kGWLaunchSettingsUnreadable;
    return decision;
  }
  std::string path = withoutTrailingSlash(askedPath);
  decision.program = programBundleOf(path);
  const ProgramBundle& program = decision.program;
  auto matches = [&](const AppEntry& entry) {
    if (!entry.path.empty()) {
      std::string recorded = withoutTrailingSlash(entry.path);
      if (recorded == path || (!program.folder.empty() && recorded == program.folder)) return true;
    }
    return !entry.bundleID.empty() && entry.bundleID == program.bundleID;
  };

  if (access->mode == AppAccess::Mode::DenyList) {
    if (std::any_of(access->denied.begin(), access->denied.end(), matches)) {
      decision.allowed = false;
      decision.reason = kGWLaunchDenyListed;
    }
    return decision;
  }
  decision.allowed = false;
  decision.reason = kGWLaunchNotWhiteListed;
  for (const AppEntry& entry : access->entries) {
    if (!matches(entry)) continue;
    if (entry.requirement && !satisfiesRequirement(entry, path, program)) {
      decision.reason = kGWLaunchSignatureMismatch;
      continue;  // another record may still recognise it
    }
    decision.allowed = true;
    decision.reason = entry.nested ? kGWLaunchNestedWhiteListed : kGWLaunchWhiteListed;
    break;
  }
  return decision;
}

void AppLaunches::launchBlocked(uid_t uid, const std::string& path,
                                const LaunchDecision& decision) {
  std::string name = decision.program.name.empty() ? path : decision.program.name;
  blocked_[uid] = {name, manager_.now()};
  if (!eventLimiter_.allow(uid, monotonicMicroseconds())) return;
  GW_LOG(1, "Launch of %s by uid %d refused (reason %d)", path.c_str(), int(uid),
         int(decision.reason));
  manager_.recordEvent({std::string(kEventBlockedLaunch),
                        uid,
                        0,
                        {{"path", plist::Value(path)},
                         {"bundleID", plist::Value(decision.program.bundleID)},
                         {"reason", plist::Value(std::int64_t(decision.reason))}}});
}

std::int32_t AppLaunches::detachedSignatureChanged(uid_t uid, const std::string& path) {
  // The validations of every version of the program go; the exec cache follows the settings.
  std::string prefix = withoutTrailingSlash(path) + '\0';
  std::erase_if(validations_, [&](const auto& entry) { return entry.first.starts_with(prefix); });
  execs_.clear();
  LaunchDecision decision = decide(uid, path);
  return decision.allowed ? 0 : decision.reason;
}

void AppLaunches::addStatusItems(uid_t uid, plist::Date now,
                                 std::vector<StatusItemInfo>& items) const {
  auto it = blocked_.find(uid);
  if (it == blocked_.end()) return;
  plist::Date until{it->second.at.secondsSinceReferenceDate + kBlockedItemSeconds};
  if (now.secondsSinceReferenceDate >= until.secondsSinceReferenceDate) return;
  items.push_back({"blocked-launch", std::string(kGWStatusKindBlacklisted), it->second.name,
                   it->second.at, until, std::string(kGWItemKindProgram)});
}

bool AppLaunches::allowExec(uid_t uid, const ExecFile& file) {
  const AppAccess* access = accessOf(uid, true);
  if (!access) return true;
  ExecKey key{uid, file.device, file.inode, file.changeNanoseconds};
  if (auto it = execs_.find(key);
      it != execs_.end() && it->second.generation == access->generation) {
    return it->second.allowed;
  }
  std::uint64_t generation = access->generation;
  std::string path = pathOfDescriptor(file.fd);
  if (path.empty()) return true;
  LaunchDecision decision = decide(uid, path);
  if (execs_.size() >= kMaxCachedExecs) execs_.clear();
  execs_[key] = {generation, decision.allowed};
  if (!decision.allowed) launchBlocked(uid, path, decision);
  return decision.allowed;
}

bool AppLaunches::enforce(std::vector<std::string> mounts, std::vector<std::string> files,
                          bool followMounts, std::string* error) {
  LaunchEnforcerOptions options;
  options.followMounts = followMounts;
  options.mounts = std::move(mounts);
  options.files = std::move(files);
  options.decide = [this](uid_t uid, pid_t, const ExecFile& file) { return allowExec(uid, file); };
  enforcer_ = LaunchEnforcer::create(manager_.loop(), std::move(options), error);
  return enforcer_ != nullptr;
}

void AppLaunches::enforceIfConfigured() {
  std::optional<plist::Value> setting = prefs::copyHostValue(kHostDomain, kEnforceLaunchesKey);
  if (!setting || !setting->boolValue()) return;
  std::string error;
  if (enforce(LaunchEnforcer::programMounts(), {}, true, &error)) {
    GW_LOG(1, "Enforcing launches of managed users");
  } else {
    GW_LOG(0, "*** Can't enforce launches (%s): launchers alone are asked", error.c_str());
  }
}

}  // namespace gw::daemon
