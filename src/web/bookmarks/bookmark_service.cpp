#include "web/bookmarks/bookmark_service.h"

#include <gatewise/core.h>
#include <gatewise/log.h>

#include <optional>
#include <string>

#include "platform/fs/root.h"
#include "web/bookmarks/user_bookmark_file.h"

namespace gw::bookmarks {
namespace {

// The account the request names, when its uid and name agree.
std::optional<std::string> namedUser(std::uint32_t uid, std::string_view userName) {
  if (!fs::isSafeName(userName) || userName.size() > 255) {
    GW_LOG(0, "*** Bookmarks requested for an invalid user name");
    return std::nullopt;
  }
  std::string name(userName);
  if (UIDForShortName(name) != uid) {
    GW_LOG(0, "*** Bookmarks requested for %@ with uid %u, which is not theirs", name, uid);
    return std::nullopt;
  }
  return name;
}

}  // namespace

ServedBookmarks readBookmarksForPeer(uid_t peer, std::uint32_t uid, std::string_view userName) {
  ServedBookmarks served;
  std::optional<std::string> name = namedUser(uid, userName);
  if (!name) {
    served.returnCode = kBookmarksBadRequest;
    return served;
  }
  if (peer != 0 && peer != uid) {
    GW_LOG(0, "*** uid %u may not read the bookmarks of %@", unsigned(peer), *name);
    served.returnCode = kBookmarksRefused;
    return served;
  }
  std::string error;
  std::optional<std::string> bytes = readUserBookmarkFile(*name, &error);
  if (!bytes) {
    GW_LOG(1, "No bookmarks for %@: %@", *name, error);
    served.returnCode = kBookmarksFailed;
    return served;
  }
  plist::ReadResult read = plist::readPropertyList(*bytes);
  if (!read || !read.value->isDictionary()) {
    GW_LOG(0, "*** The bookmark file of %@ is not a dictionary", *name);
    served.returnCode = kBookmarksFailed;
    return served;
  }
  served.data.assign(bytes->begin(), bytes->end());
  return served;
}

std::int32_t writeBookmarksForPeer(uid_t peer, std::uint32_t uid, std::string_view userName,
                                   std::span<const std::uint8_t> bookmarks) {
  if (peer != 0) {
    GW_LOG(0, "*** uid %u may not write bookmarks", unsigned(peer));
    return kBookmarksRefused;
  }
  std::optional<std::string> name = namedUser(uid, userName);
  if (!name) return kBookmarksBadRequest;
  if (bookmarks.size() > kMaxServedBookmarksSize) {
    GW_LOG(0, "*** Bookmarks for %@ are too large (%zu bytes)", *name, bookmarks.size());
    return kBookmarksBadRequest;
  }
  plist::ReadResult read = plist::readPropertyList(bookmarks);
  if (!read || !read.value->isDictionary()) {
    GW_LOG(0, "*** Bookmarks for %@ are not a dictionary", *name);
    return kBookmarksBadRequest;
  }
  LumewayFolder folder = openLumewayFolder(*name);
  if (!folder.homeFound) {
    GW_LOG(0, "*** Couldn't get home directory for user %@", *name);
    return kBookmarksFailed;
  }
  std::string path = folder.home + "/Library/Lumeway/Bookmarks.plist";
  switch (writeBookmarkFile(folder.folder, path, *name, *read.value)) {
    case FileWrite::Written:
      GW_LOG(1, "Wrote the bookmarks of %@", *name);
      return 0;
    case FileWrite::WriteFailed:
      GW_LOG(0, "*** Couldn't write bookmarks to path %@", path);
      return kBookmarksFailed;
    case FileWrite::PermissionsFailed:
      GW_LOG(0, "*** Couldn't change permissions of path %@", path);
      return kBookmarksFailed;
  }
  return kBookmarksFailed;
}

}  // namespace gw::bookmarks
