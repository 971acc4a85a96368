// Fixed locations below the system root, and the managed domains in force for a user.
#include <fts.h>
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>

#include "platform/fs/root.h"

const char kGWListeningFilePath[] = "/Library/Application Support/Morvane/Tutela/.listening";

namespace {

constexpr const char* kManagedPreferences = "/Library/Managed Preferences";
constexpr const char* kDaemonUsersFolder = "/Library/Application Support/Morvane/Tutela/Users/";
constexpr std::string_view kPlistExtension = ".plist";

// The three domains an administrator can switch off without removing the file, with the key
// that switches each one.
struct SwitchableDomain {
  const char* file;
  const char* enabledKey;
};
constexpr SwitchableDomain kSwitchableDomains[] = {
    {"com.morvane.applicationaccess.new.plist", "gatewiseEnabled"},
    {"com.morvane.vistrel.plist", "whiteListEnabled"},
    {"com.morvane.gatewise.contentfilter.plist", "restrictWeb"},
};
constexpr const char* kNeverInForce = "complete.plist";

std::string withoutPlistExtensions(std::string name) {
  for (std::size_t at; (at = name.find(kPlistExtension)) != std::string::npos;) {
    name.erase(at, kPlistExtension.size());
  }
  return name;
}

// A switchable file is in force when it reads as a dictionary whose key is missing or true.
bool switchableDomainIsInForce(const std::string& path, const char* enabledKey) {
  gw::plist::ReadResult result = gw::plist::readPropertyListFile(path);
  if (!result || !result.value->isDictionary()) {
    GW_LOG(1, "*** Leaving out %s: %s", path.c_str(),
           result ? "not a dictionary" : result.error.c_str());
    return false;
  }
  const gw::plist::Value* enabled = result.value->dictionary()->find(enabledKey);
  return !enabled || enabled->boolValue();
}

bool isDomainInForce(const std::string& folder, const std::string& relativePath) {
  if (relativePath == kNeverInForce) return false;
  for (const SwitchableDomain& domain : kSwitchableDomains) {
    if (relativePath == domain.file) {
      return switchableDomainIsInForce(folder + "/" + relativePath, domain.enabledKey);
    }
  }
  return true;
}

int compareByName(const FTSENT** a, const FTSENT** b) {
  return std::strcmp((*a)->fts_name, (*b)->fts_name);
}

// Relative paths of every non-folder below folder, in name order.
std::vector<std::string> filesBelow(const std::string& folder) {
  std::vector<std::string> files;
  std::string root = folder;
  char* roots[] = {root.data(), nullptr};
  std::unique_ptr<FTS, int (*)(FTS*)> walk(
      ::fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | FTS_NOSTAT, &compareByName), &::fts_close);
  if (!walk) return files;
  while (FTSENT* entry = ::fts_read(walk.get())) {
    if (entry->fts_level == 0) continue;
    switch (entry->fts_info) {
      case FTS_D:
      case FTS_DP:
      case FTS_DC:
      case FTS_DOT:
        continue;
      case FTS_DNR:
      case FTS_ERR:
        GW_LOG(1, "*** Couldn't read %s: %s", entry->fts_path, std::strerror(entry->fts_errno));
        continue;
      default:
        files.emplace_back(entry->fts_path + folder.size() + 1);
    }
  }
  return files;
}

}  // namespace

std::string GWRootedPath(std::string_view absolutePath) { return gw::fs::rootedPath(absolutePath); }

std::string GWManagedPreferencesFolder() { return gw::fs::rootedPath(kManagedPreferences); }

std::optional<std::string> GWManagedPreferencesFolderForUser(std::string_view userName) {
  if (!gw::fs::isSafeName(userName)) return std::nullopt;
  return GWManagedPreferencesFolder() + "/" + std::string(userName);
}

std::optional<std::string> GWManagedPreferencesFileForUser(std::string_view userName,
                                                           std::string_view domain) {
  auto folder = GWManagedPreferencesFolderForUser(userName);
  if (!folder || !gw::fs::isSafeName(domain)) return std::nullopt;
  return *folder + "/" + std::string(domain) + std::string(kPlistExtension);
}

std::optional<std::string> GWFolderForUserName(std::optional<std::string_view> name) {
  if (!name) return std::nullopt;
  if (!gw::fs::isSafeName(*name)) {
    GW_LOG(0, "*** Refusing user name %.*s", int(name->size()), name->data());
    return std::nullopt;
  }
  std::string path =
      std::filesystem::path(gw::fs::rootedPath(kDaemonUsersFolder + std::string(*name)))
          .lexically_normal()
          .string();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

const std::vector<std::string>& GWDaemonPreferenceDomains() {
  static const std::vector<std::string> domains = {
      "com.morvane.gatewise.timelimits",
      "com.morvane.gatewise.logging",
      "com.morvane.applicationaccess",
      "com.morvane.applicationaccess.new",
      "com.morvane.gatewise.contentfilter",
      "com.morvane.Lumeway",
      "com.morvane.vistrel",
  };
  return domains;
}

bool GWPrefDomainsRequireDaemon(const gw::plist::ArrayRef& domains) {
  if (!domains) return false;
  for (const gw::plist::Value& domain : *domains) {
    for (const std::string& needed : GWDaemonPreferenceDomains()) {
      if (domain == gw::plist::Value(needed)) return true;
    }
  }
  return false;
}

gw::plist::ArrayRef GWManagedDomainsForUser(std::string_view userName) {
  GW_LOG(2, "user: %.*s", int(userName.size()), userName.data());
  auto result = gw::plist::Array::make();
  if (userName.empty()) return nullptr;
  auto folder = GWManagedPreferencesFolderForUser(userName);
  if (!folder) {
    GW_LOG(0, "*** Refusing user name %.*s", int(userName.size()), userName.data());
    return nullptr;
  }
  struct stat st;
  if (::stat(folder->c_str(), &st) != 0) return result;
  try {
    for (const std::string& relativePath : filesBelow(*folder)) {
      if (isDomainInForce(*folder, relativePath)) {
        result->append(withoutPlistExtensions(relativePath));
      }
    }
  } catch (const std::exception& e) {
    GW_LOG(0, "Caught exception: %@", e);
  }
  return result;
}
