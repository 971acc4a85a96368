// File existence and type tests, symbolic links, and folder creation with owner and mode.
//
// exists, isDirectory and isRegularFile follow symbolic links (a dangling link does not exist);
// isSymbolicLink looks at the entry itself. They answer false for any failure. createFolder sets
// the mode exactly (the umask does not apply) and, when asked, the owner, on the new folder
// through its descriptor, so the folder never stands with a wrong owner or mode under a name that
// a link could redirect. Thread-safe; failures are reported by result with a one-line reason.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace gw::fs {

bool exists(const std::string& path);
bool isDirectory(const std::string& path);
bool isRegularFile(const std::string& path);
bool isSymbolicLink(const std::string& path);

// The target text of a symbolic link, or nullopt when path is not one or cannot be read.
std::optional<std::string> readSymbolicLink(const std::string& path);

struct Owner {
  uid_t uid;
  gid_t gid;
};

// Creates the folder path with mode and, if given, owner. With intermediates, missing parents are
// created too, each with the same mode and owner. A folder that already exists (also through a
// link) counts as success and is left as it is; any other entry in the way is a failure.
bool createFolder(const std::string& path, mode_t mode, std::optional<Owner> owner = std::nullopt,
                  bool intermediates = false, std::string* error = nullptr);

}  // namespace gw::fs
