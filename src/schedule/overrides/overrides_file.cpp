#include "schedule/overrides/overrides_file.h"

#include <gatewise/core.h>
#include <gatewise/log.h>
#include <grp.h>

#include <cstdio>
#include <vector>

#include "platform/fs/file_info.h"
#include "platform/fs/paths.h"
#include "platform/time/local_time.h"
#include "schedule/limits/stored_file.h"

namespace gw::overrides {
namespace {

// The group of the daemon's per-user folders. A system without an "admin" group gets the root
// group instead: the folder must never end up owned by a group that ordinary users belong to.
gid_t adminGroup() {
  struct group entry;
  struct group* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getgrnam_r("admin", &entry, buffer.data(), buffer.size(), &found) == 0 && found) {
    return found->gr_gid;
  }
  return 0;
}

}  // namespace

std::optional<std::string> overridesFilePath(std::string_view userName) {
  std::optional<std::string> folder = GWFolderForUserName(userName);
  if (!folder) return std::nullopt;
  return fs::standardizedPath(*folder + "/" + std::string(kOverridesFileName));
}

std::string todayKey() {
  time::LocalComponents today = time::localComponents(plist::Date::now());
  char key[32];
  std::snprintf(key, sizeof key, "%04d-%02d-%02d", today.year, today.month, today.day);
  return key;
}

void ensureUserFolder(const std::string& folder) {
  if (fs::isDirectory(folder)) return;
  std::string error;
  fs::createFolder(folder, 0755, fs::Owner{0, adminGroup()}, false, &error);
  if (!fs::isDirectory(folder)) GW_LOG(0, "*** Couldn't create %@", folder);
}

std::optional<plist::DictionaryRef> readOverrides(const std::string& path) {
  std::optional<plist::Value> stored = limits::readStoredPropertyList(path);
  if (!stored || !stored->isDictionary()) return std::nullopt;
  return plist::deepMutableCopy(*stored).dictionary();
}

void writeOverrides(const std::string& path, const plist::DictionaryRef& overrides) {
  std::string error;
  if (plist::writePropertyListFile(path, overrides, plist::Format::XML, &error)) {
    GW_LOG(2, "Successfully wrote overrides file");
  } else {
    GW_LOG(0, "*** Failed to write overrides plist");
  }
}

}  // namespace gw::overrides
