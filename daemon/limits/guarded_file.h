// Files the daemon reads as root from folders other people may write to.
//
// readRegularFile opens without following a link in the last component and without blocking,
// refuses anything but a regular file and anything larger than maxSize, and reads it whole.
// FileStamp identifies one version of a file (device, inode, size, change time), so a reader can
// skip reparsing a file that did not change; a missing file has the stamp `absent`.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace gw::daemon {

struct FileStamp {
  bool absent = true;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t changeNanoseconds = 0;
  std::int64_t modifyNanoseconds = 0;
  friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

FileStamp stampOf(const std::string& path);

// The file's bytes; nullopt with *error set when it is missing, not a regular file, a link, too
// large or unreadable.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t maxSize,
                                           std::string* error);

}  // namespace gw::daemon
