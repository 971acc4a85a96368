#include "daemon/apps/app_access.h"

#include <gatewise/core.h>
#include <gatewise/launch.h>
#include <gatewise/log.h>
#include <time.h>

namespace gw::daemon {
namespace {

// Appends the record (a dictionary, or a plain path in the older form) and its nested records.
void addRecord(const plist::Value& record, bool nested, int depth, std::vector<AppEntry>& out) {
  if (const std::string* path = record.ifString()) {
    if (!path->empty()) out.push_back({*path, "", std::nullopt, std::nullopt, nested});
    return;
  }
  const plist::Dictionary* fields = record.ifDictionary();
  if (!fields) {
    GW_LOG(1, "*** Skipping a white-list element that is not a record");
    return;
  }
  AppEntry entry;
  entry.nested = nested;
  if (const std::string* path = fields->get("path").ifString()) entry.path = *path;
  if (const std::string* id = fields->get("bundleID").ifString()) entry.bundleID = *id;
  if (const plist::Value& v = fields->get("appID"); v.isData()) entry.requirement = v.data();
  if (const plist::Value& v = fields->get("detachedSignature"); v.isData()) {
    entry.detachedSignature = v.data();
  }
  // A record without a path and without an identifier matches nothing.
  if (!entry.path.empty() || !entry.bundleID.empty()) out.push_back(std::move(entry));
  const plist::Array* subApps = fields->get("subApps").ifArray();
  if (!subApps) return;
  if (depth >= kMaxNestedRecords) {
    GW_LOG(1, "*** Ignoring records nested deeper than %d", kMaxNestedRecords);
    return;
  }
  for (const plist::Value& sub : *subApps) addRecord(sub, true, depth + 1, out);
}

std::vector<AppEntry> recordsOf(const plist::Value& list) {
  std::vector<AppEntry> out;
  if (const plist::Array* records = list.ifArray()) {
    for (const plist::Value& record : *records) addRecord(record, false, 0, out);
  } else if (!list.isNull()) {
    GW_LOG(1, "*** Ignoring a white list that is not an array");
  }
  return out;
}

// The settings file's value; nullopt (logged) when it cannot be read or parsed.
std::optional<plist::Value> readSettings(const std::string& path, const std::string& userName) {
  std::string error;
  std::optional<std::string> bytes = readRegularFile(path, kMaxAppAccessFileSize, &error);
  plist::ReadResult read;
  if (bytes) read = plist::readPropertyList(std::string_view(*bytes));
  if (!bytes || !read) {
    GW_LOG(0, "*** Can't read the application access of %s: %s", userName.c_str(),
           (bytes ? read.error : error).c_str());
    return std::nullopt;
  }
  return std::move(read.value);
}

}  // namespace

AppAccess parseAppAccess(const plist::Value& settings, bool isOlderForm) {
  AppAccess access;
  const plist::Dictionary* fields = settings.ifDictionary();
  if (!fields) {
    GW_LOG(0, "*** Application access settings are not a dictionary");
    access.mode = AppAccess::Mode::Unreadable;
    return access;
  }
  if (!isOlderForm) {
    if (!fields->get("gatewiseEnabled").boolValue()) return access;
    access.mode = AppAccess::Mode::WhiteList;
    access.entries = recordsOf(fields->get("whiteList"));
    return access;
  }
  if (fields->contains("ItemsList")) {
    access.mode = AppAccess::Mode::WhiteList;
    access.entries = recordsOf(fields->get("ItemsList"));
  } else if (fields->contains("DenyList")) {
    access.mode = AppAccess::Mode::DenyList;
    access.denied = recordsOf(fields->get("DenyList"));
  }
  return access;
}

const AppAccess& AppAccessCache::accessFor(const std::string& userName, bool recentEnough) {
  timespec clock{};
  ::clock_gettime(CLOCK_MONOTONIC, &clock);
  std::uint64_t now = std::uint64_t(clock.tv_sec) * 1'000'000 + std::uint64_t(clock.tv_nsec) / 1000;
  auto it = entries_.find(userName);
  if (recentEnough && it != entries_.end() && now - it->second.checkedAt < kRecheckMicroseconds) {
    return it->second.access;
  }
  std::optional<std::string> current =
      GWManagedPreferencesFileForUser(userName, kGWApplicationAccessDomain);
  std::optional<std::string> older =
      GWManagedPreferencesFileForUser(userName, kGWOldApplicationAccessDomain);
  Entry fresh;
  fresh.checkedAt = now;
  if (current) fresh.current = stampOf(*current);
  if (older) fresh.older = stampOf(*older);
  if (it != entries_.end() && it->second.current == fresh.current &&
      it->second.older == fresh.older) {
    it->second.checkedAt = now;
    return it->second.access;
  }
  std::optional<plist::Value> settings;
  if (!fresh.current.absent) settings = readSettings(*current, userName);
  if (settings) {
    fresh.access = parseAppAccess(*settings, false);
  } else if (!fresh.older.absent) {
    if ((settings = readSettings(*older, userName))) {
      fresh.access = parseAppAccess(*settings, true);
    } else {
      fresh.access.mode = AppAccess::Mode::Unreadable;
    }
  } else if (!fresh.current.absent) {
    fresh.access.mode = AppAccess::Mode::Unreadable;
  }
  fresh.access.generation = nextGeneration_++;
  return (entries_[userName] = std::move(fresh)).access;
}

}  // namespace gw::daemon
