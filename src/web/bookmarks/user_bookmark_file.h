// A user's bookmark file, "<home>/Library/Lumeway/Bookmarks.plist", as root reads and writes it.
//
// The home folder belongs to the user, who may plant links anywhere below it. So every component
// below the home folder is opened through its parent's descriptor without following links, the
// Lumeway folder is created (when missing) through the Library folder's descriptor with the
// Library folder's mode and owners, and the file is written through the Lumeway folder's
// descriptor: a temporary file created exclusively, given mode 0600 and its owners while still
// unnamed to the user, synced and renamed over the old one. Any failure leaves the old file and no
// temporary file behind. Nothing here throws; each failure is logged where it is reported.
#pragma once

#include <gatewise/plist.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/fs/unique_fd.h"

namespace gw::bookmarks {

inline constexpr std::size_t kMaxUserBookmarkFileSize = std::size_t(32) << 20;

// The user's Lumeway folder, opened (and made if missing, logged "Creating user's Lumeway
// folder"); folder is invalid when it could not be opened. homeFound is false when the user has
// no home folder.
struct LumewayFolder {
  bool homeFound = false;
  std::string home;
  fs::UniqueFd folder;
};
LumewayFolder openLumewayFolder(std::string_view userName);

enum class FileWrite { Written, WriteFailed, PermissionsFailed };

// Writes root as an XML property list to "Bookmarks.plist" in folder, mode 0600, owned by the
// user userName and the group of the same name. path is only for messages.
FileWrite writeBookmarkFile(const fs::UniqueFd& folder, const std::string& path,
                            std::string_view userName, const plist::Value& root);

// The bytes of the user's bookmark file (a regular file of at most kMaxUserBookmarkFileSize,
// reached without following links), or nullopt with *error set.
std::optional<std::string> readUserBookmarkFile(std::string_view userName, std::string* error);

}  // namespace gw::bookmarks
