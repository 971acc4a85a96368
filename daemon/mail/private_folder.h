// Files the daemon keeps for one user, out of that user's reach.
//
// openUserFolder opens "<root>/Library/Application Support/Morvane/Tutela/Users/<uid>", creating
// what is missing: the components down to "Users" as ordinary system folders (0755), the uid's
// folder 0700. Every component below the system root is opened through its parent's descriptor
// with O_NOFOLLOW, so a link planted anywhere on the way is refused, never followed; the uid's
// folder (and any folder made with openPrivateFolder) must belong to the daemon's user and is
// brought to mode 0700. Files are read and written through a folder's descriptor only: reads open
// without following a link and refuse anything but a regular file over a size bound; writes go to
// an exclusively created temporary file (0600) that is synced and renamed into place, then the
// folder is synced. Failures come back as an empty descriptor or false with a one-line reason.
// Any thread; nothing is shared.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/fs/unique_fd.h"

namespace gw::daemon {

inline constexpr const char* kUsersFolder = "/Library/Application Support/Morvane/Tutela/Users";

fs::UniqueFd openUserFolder(uid_t uid, std::string* error);
// The folder name inside parent, made 0700 when missing and checked like the uid's folder.
fs::UniqueFd openPrivateFolder(int parent, const std::string& name, std::string* error);

std::optional<std::string> readPrivateFile(int folder, const std::string& name, std::size_t maxSize,
                                           std::string* error);
bool writePrivateFile(int folder, const std::string& name, std::string_view bytes,
                      std::string* error);

}  // namespace gw::daemon
