#include "web/bookmarks/user_bookmark_file.h"

#include <fcntl.h>
#include <gatewise/log.h>
#include <grp.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/fs/file_io.h"
#include "platform/fs/paths.h"
#include "platform/fs/root.h"

namespace gw::bookmarks {
namespace {

constexpr const char kFileName[] = "Bookmarks.plist";
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::optional<uid_t> userID(const std::string& name) {
  std::vector<char> buffer(16384);
  passwd entry{}, *found = nullptr;
  if (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
    return std::nullopt;
  return found->pw_uid;
}

std::optional<gid_t> groupID(const std::string& name) {
  std::vector<char> buffer(16384);
  group entry{}, *found = nullptr;
  if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
    return std::nullopt;
  return found->gr_gid;
}

// "Bookmarks.plist.XXXXXXXX" with random hexadecimal, created exclusively below folder.
fs::UniqueFd createTemporaryFile(int folder, std::string* name) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    unsigned char random[8];
    if (::getrandom(random, sizeof random, 0) != ssize_t(sizeof random)) continue;
    *name = std::string(kFileName) + ".";
    for (unsigned char byte : random) {
      static constexpr char kHex[] = "0123456789abcdef";
      *name += kHex[byte >> 4];
      *name += kHex[byte & 15];
    }
    int fd =
        ::openat(folder, name->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0) return fs::UniqueFd(fd);
    if (errno != EEXIST) break;
  }
  return fs::UniqueFd();
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(std::size_t(n));
  }
  return true;
}

}  // namespace

LumewayFolder openLumewayFolder(std::string_view userName) {
  LumewayFolder result;
  if (!fs::isSafeName(userName)) return result;
  std::optional<std::string> home = fs::homeFolderForUserName(userName);
  if (!home || home->empty()) return result;
  result.homeFound = true;
  result.home = *home;
  fs::UniqueFd homeFolder(::open(home->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!homeFolder) {
    GW_LOG(1, "cannot open %s: %s", home->c_str(), std::strerror(errno));
    return result;
  }
  fs::UniqueFd library(::openat(homeFolder.get(), "Library", kFolderFlags));
  if (!library) {
    GW_LOG(1, "cannot open %s/Library: %s", home->c_str(), std::strerror(errno));
    return result;
  }
  result.folder.reset(::openat(library.get(), "Lumeway", kFolderFlags));
  if (result.folder || errno != ENOENT) return result;

  GW_LOG(1, "Creating user's Lumeway folder");
  struct stat attributes {};
  if (::fstat(library.get(), &attributes) != 0) return result;
  // Made root's and private first, then handed over through its own descriptor, so the folder
  // never stands under a name the user could swap with wider rights than it will have.
  if (::mkdirat(library.get(), "Lumeway", 0700) != 0 && errno != EEXIST) return result;
  result.folder.reset(::openat(library.get(), "Lumeway", kFolderFlags));
  if (result.folder) {
    if (::fchown(result.folder.get(), attributes.st_uid, attributes.st_gid) != 0 ||
        ::fchmod(result.folder.get(), attributes.st_mode & 07777) != 0) {
      GW_LOG(1, "cannot give the Lumeway folder its owner and mode: %s", std::strerror(errno));
    }
  }
  return result;
}

FileWrite writeBookmarkFile(const fs::UniqueFd& folder, const std::string& path,
                            std::string_view userName, const plist::Value& root) {
  std::string error;
  std::optional<std::string> bytes = plist::writePropertyList(root, plist::Format::XML, &error);
  if (!bytes) {
    GW_LOG(1, "%s", error.c_str());
    return FileWrite::WriteFailed;
  }
  if (!folder) return FileWrite::WriteFailed;
  std::string name;
  fs::UniqueFd file = createTemporaryFile(folder.get(), &name);
  if (!file) return FileWrite::WriteFailed;
  auto discard = [&](FileWrite outcome) {
    GW_LOG(1, "writing %s: %s", path.c_str(), std::strerror(errno));
    ::unlinkat(folder.get(), name.c_str(), 0);
    return outcome;
  };
  if (!writeAll(file.get(), *bytes)) return discard(FileWrite::WriteFailed);
  std::string user(userName);
  std::optional<uid_t> owner = userID(user);
  std::optional<gid_t> group = groupID(user);
  if (!owner || !group) errno = ENOENT;
  if (!owner || !group || ::fchown(file.get(), *owner, *group) != 0 ||
      ::fchmod(file.get(), 0600) != 0) {
    return discard(FileWrite::PermissionsFailed);
  }
  if (::fsync(file.get()) != 0) return discard(FileWrite::WriteFailed);
  if (::close(file.release()) != 0) return discard(FileWrite::WriteFailed);
  if (::renameat(folder.get(), name.c_str(), folder.get(), kFileName) != 0)
    return discard(FileWrite::WriteFailed);
  ::fsync(folder.get());
  return FileWrite::Written;
}

std::optional<std::string> readUserBookmarkFile(std::string_view userName, std::string* error) {
  if (!fs::isSafeName(userName)) {
    if (error) *error = "invalid user name";
    return std::nullopt;
  }
  std::optional<std::string> home = fs::homeFolderForUserName(userName);
  if (!home || home->empty()) {
    if (error) *error = "no home folder for " + std::string(userName);
    return std::nullopt;
  }
  return fs::readFileBelow(*home, "Library/Lumeway/Bookmarks.plist", kMaxUserBookmarkFileSize,
                           error);
}

}  // namespace gw::bookmarks
