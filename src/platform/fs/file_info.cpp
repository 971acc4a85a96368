#include "platform/fs/file_info.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace gw::fs {
namespace {

bool statType(const std::string& path, mode_t type, bool follow) {
  struct stat st;
  int rc = follow ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
  return rc == 0 && (type == 0 || (st.st_mode & S_IFMT) == type);
}

bool fail(std::string* error, const std::string& what, const std::string& path, int err) {
  if (error) *error = what + " " + path + ": " + std::strerror(err);
  return false;
}

// Makes one folder, then sets its owner and mode through a descriptor opened without following
// links, so a name swapped for a link between the two steps cannot redirect the change.
bool makeOneFolder(const std::string& path, mode_t mode, const std::optional<Owner>& owner,
                   std::string* error) {
  if (::mkdir(path.c_str(), 0700) != 0) {
    int err = errno;
    if (err == EEXIST && isDirectory(path)) return true;
    return fail(error, "cannot create folder", path, err);
  }
  int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return fail(error, "cannot open new folder", path, errno);
  bool ok = true;
  if (owner && ::fchown(fd, owner->uid, owner->gid) != 0) {
    ok = fail(error, "cannot set the owner of", path, errno);
  } else if (::fchmod(fd, mode) != 0) {
    ok = fail(error, "cannot set the mode of", path, errno);
  }
  ::close(fd);
  return ok;
}

}  // namespace

bool exists(const std::string& path) { return statType(path, 0, true); }
bool isDirectory(const std::string& path) { return statType(path, S_IFDIR, true); }
bool isRegularFile(const std::string& path) { return statType(path, S_IFREG, true); }
bool isSymbolicLink(const std::string& path) { return statType(path, S_IFLNK, false); }

std::optional<std::string> readSymbolicLink(const std::string& path) {
  std::vector<char> buffer(256);
  for (;;) {
    ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (n < 0) return std::nullopt;
    if (std::size_t(n) < buffer.size()) return std::string(buffer.data(), std::size_t(n));
    if (buffer.size() >= (std::size_t(1) << 20)) return std::nullopt;
    buffer.resize(buffer.size() * 2);  // possibly truncated: read again with more room
  }
}

bool createFolder(const std::string& path, mode_t mode, std::optional<Owner> owner,
                  bool intermediates, std::string* error) {
  if (path.empty()) return fail(error, "cannot create folder", "\"\"", ENOENT);
  if (intermediates) {
    // Every proper prefix that ends before a slash, shortest first.
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
      if (path[slash - 1] == '/') continue;
      std::string parent = path.substr(0, slash);
      if (isDirectory(parent)) continue;
      if (!makeOneFolder(parent, mode, owner, error)) return false;
    }
  }
  std::string target = path;
  while (target.size() > 1 && target.back() == '/') target.pop_back();
  return makeOneFolder(target, mode, owner, error);
}

}  // namespace gw::fs
