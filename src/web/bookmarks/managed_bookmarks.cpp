// The root-only writer of a managed user's bookmarks, and the change callback of this module.
//
// The administrator's editor stores the user's allowed sites as a bookmark folder under
// "siteWhitelist" in the browser's managed preference; this writer turns it into the user's whole
// bookmark file. A user without managed bookmarks keeps the file they have.
#include <gatewise/bookmarks.h>
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <gatewise/notifications.h>
#include <unistd.h>

#include "platform/fs/file_io.h"
#include "platform/fs/paths.h"
#include "web/bookmarks/bookmark_keys.h"
#include "web/bookmarks/user_bookmark_file.h"

namespace gw {

namespace keys = bookmark_keys;

namespace {

constexpr const char kBrowserDomain[] = "com.morvane.Lumeway";
constexpr const char kSiteWhitelistKey[] = "siteWhitelist";
constexpr const char kChangedDomainsKey[] = "com.morvane.QRM.changedDomains";
constexpr const char kContentFilterDomain[] = "com.morvane.gatewise.contentfilter";
constexpr std::size_t kMaxPreferenceFileSize = std::size_t(16) << 20;

// Every line of the writer is logged under the exported writer's name.
constexpr const char kWriterName[] = "GWLumewayWriteUserBookmarksToBookmarksFile";
#define WRITER_LOG(level, ...) ::gw::GWFrameworkLog(level, kWriterName, __LINE__, __VA_ARGS__)

// This module's per-user cache. Nothing here fills it; QRMPrefsChanged only ever drops it.
plist::DictionaryRef gLumewayUserCache;

// The browser's managed preference for the user, or null when it cannot be read.
plist::DictionaryRef browserPreference(std::string_view userName) {
  std::optional<std::string> path = GWManagedPreferencesFileForUser(userName, kBrowserDomain);
  if (!path) return nullptr;
  std::string error;
  std::optional<std::string> bytes = fs::readFile(*path, kMaxPreferenceFileSize, &error);
  if (!bytes) return nullptr;
  plist::ReadResult read = plist::readPropertyList(
      *bytes, {.mutability = plist::Mutability::MutableContainers, .xmlUIDDictionaries = false});
  if (!read || !read.value->isDictionary()) {
    WRITER_LOG(1, "%s: %s", path->c_str(), read ? "not a dictionary" : read.error.c_str());
    return nullptr;
  }
  return read.value->dictionary();
}

GWBookmarkWriteOutcome writeManagedBookmarks(std::string_view userName) {
  plist::DictionaryRef preference = browserPreference(userName);
  if (!preference) {
    WRITER_LOG(1, "Lumeway prefs don't exist");
    return GWBookmarkWriteOutcome::NoPreferences;
  }
  const plist::Value& whitelist = preference->get(kSiteWhitelistKey);
  if (whitelist.isNull()) {
    WRITER_LOG(1, "Couldn't get lumeway bookmarks");
    return GWBookmarkWriteOutcome::NoBookmarks;
  }
  plist::Value root =
      plist::Value::newDictionary({{keys::kTitle, ""},
                                   {keys::kWrittenFileVersion, 1},
                                   {keys::kType, keys::kTypeList},
                                   {keys::kUUID, keys::kRootUUID},
                                   {keys::kChildren, plist::Value::newArray({whitelist})}});

  bookmarks::LumewayFolder folder = bookmarks::openLumewayFolder(userName);
  if (!folder.homeFound) {
    WRITER_LOG(0, "*** Couldn't get home directory for user %@", userName);
    return GWBookmarkWriteOutcome::NoHomeFolder;
  }
  std::string path = fs::standardizedPath(folder.home + "/Library/Lumeway/Bookmarks.plist");
  if (path.empty()) {
    WRITER_LOG(0, "*** Couldn't get bookmarks path for user %@", userName);
    return GWBookmarkWriteOutcome::WriteFailed;
  }
  WRITER_LOG(2, "bookmarks found in managed prefs. writing to file: %@", path);
  switch (bookmarks::writeBookmarkFile(folder.folder, path, userName, root)) {
    case bookmarks::FileWrite::Written:
      return GWBookmarkWriteOutcome::Written;
    case bookmarks::FileWrite::WriteFailed:
      WRITER_LOG(0, "*** Couldn't write bookmarks to path %@", path);
      return GWBookmarkWriteOutcome::WriteFailed;
    case bookmarks::FileWrite::PermissionsFailed:
      WRITER_LOG(0, "*** Couldn't change permissions of path %@", path);
      return GWBookmarkWriteOutcome::PermissionsFailed;
  }
  return GWBookmarkWriteOutcome::Failed;
}

}  // namespace

GWBookmarkWriteOutcome writeUserBookmarksToBookmarksFile(std::string_view userName) {
  WRITER_LOG(2, "Enter");
  if (::geteuid() != 0) {
    WRITER_LOG(0, "*** Must be called by root");
    return GWBookmarkWriteOutcome::NotRoot;
  }
  GWBookmarkWriteOutcome outcome;
  try {
    outcome = writeManagedBookmarks(userName);
  } catch (const std::exception& e) {
    logCaughtException(kWriterName, __LINE__, e);
    outcome = GWBookmarkWriteOutcome::Failed;
  }
  // A stop on a failure posts nothing; a written file, or one cut short by an exception, is
  // announced (the browser rereads its file either way).
  if (outcome == GWBookmarkWriteOutcome::Written || outcome == GWBookmarkWriteOutcome::Failed)
    notify::postNotification(kGWLumewayBookmarksWrittenNotification, userName);
  return outcome;
}

void GWLumewayWriteUserBookmarksToBookmarksFile(std::string_view userName) {
  writeUserBookmarksToBookmarksFile(userName);
}

void QRMPrefsChanged(const void*, const void*, std::string_view, std::string_view,
                     const plist::DictionaryRef& userInfo) {
  GW_LOG(2, "Enter");
  if (!userInfo) return;
  const plist::Array* domains = userInfo->get(kChangedDomainsKey).ifArray();
  if (!domains) return;
  for (const plist::Value& domain : *domains) {
    if (const std::string* name = domain.ifString(); name && *name == kContentFilterDomain) {
      gLumewayUserCache = nullptr;
      return;
    }
  }
}

}  // namespace gw
