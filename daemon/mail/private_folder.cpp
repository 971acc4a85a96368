#include "daemon/mail/private_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "platform/fs/root.h"

namespace gw::daemon {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool failed(std::string* error, const std::string& what, int err) {
  if (error) *error = what + ": " + std::strerror(err);
  return false;
}

// name inside parent, made with mode when missing; never a link.
fs::UniqueFd openOrMake(int parent, const std::string& name, mode_t mode, std::string* error) {
  if (::mkdirat(parent, name.c_str(), mode) != 0 && errno != EEXIST) {
    failed(error, "cannot create " + name, errno);
    return {};
  }
  fs::UniqueFd fd(::openat(parent, name.c_str(), kFolderFlags));
  if (!fd) failed(error, "cannot open " + name, errno);
  return fd;
}

// A folder that only the daemon's user may enter.
bool makePrivate(int fd, const std::string& name, std::string* error) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return failed(error, "cannot stat " + name, errno);
  if (st.st_uid != ::geteuid()) {
    if (error) *error = name + " belongs to uid " + std::to_string(st.st_uid);
    return false;
  }
  if ((st.st_mode & 07777) != 0700 && ::fchmod(fd, 0700) != 0) {
    return failed(error, "cannot set the mode of " + name, errno);
  }
  return true;
}

}  // namespace

fs::UniqueFd openUserFolder(uid_t uid, std::string* error) {
  fs::UniqueFd folder(::open(fs::systemRoot().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) {
    failed(error, "cannot open the system root", errno);
    return {};
  }
  std::string_view rest = std::string_view(kUsersFolder).substr(1);
  while (!rest.empty()) {
    std::size_t slash = rest.find('/');
    std::string name(rest.substr(0, slash));
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    folder = openOrMake(folder.get(), name, 0755, error);
    if (!folder) return {};
  }
  return openPrivateFolder(folder.get(), std::to_string(uid), error);
}

fs::UniqueFd openPrivateFolder(int parent, const std::string& name, std::string* error) {
  fs::UniqueFd folder = openOrMake(parent, name, 0700, error);
  if (folder && !makePrivate(folder.get(), name, error)) return {};
  return folder;
}

std::optional<std::string> readPrivateFile(int folder, const std::string& name, std::size_t maxSize,
                                           std::string* error) {
  fs::UniqueFd fd(
      ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  struct stat st;
  if (!fd || ::fstat(fd.get(), &st) != 0) {
    failed(error, "cannot open " + name, errno);
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode) || std::size_t(st.st_size) > maxSize) {
    if (error) *error = name + " is not a regular file of at most " + std::to_string(maxSize);
    return std::nullopt;
  }
  std::string bytes(std::size_t(st.st_size), '\0');
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::read(fd.get(), bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      failed(error, "cannot read " + name, errno);
      return std::nullopt;
    }
    if (n == 0) break;
    done += std::size_t(n);
  }
  bytes.resize(done);
  return bytes;
}

bool writePrivateFile(int folder, const std::string& name, std::string_view bytes,
                      std::string* error) {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  std::string temp;
  fs::UniqueFd fd;
  for (int attempt = 0; attempt < 16 && !fd; ++attempt) {
    temp = "." + name + "." + std::to_string(random() % 1000000000);
    fd = fs::UniqueFd(
        ::openat(folder, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd && errno != EEXIST) break;
  }
  if (!fd) return failed(error, "cannot create a temporary file for " + name, errno);
  auto discard = [&](const char* what) {
    int err = errno;
    ::unlinkat(folder, temp.c_str(), 0);
    return failed(error, what + (" " + name), err);
  };
  if (::fchmod(fd.get(), 0600) != 0) return discard("cannot set the mode of");
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd.get(), bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return discard("cannot write");
    done += std::size_t(n);
  }
  if (::fsync(fd.get()) != 0) return discard("cannot sync");
  if (::close(fd.release()) != 0) return discard("cannot close");
  if (::renameat(folder, temp.c_str(), folder, name.c_str()) != 0) {
    return discard("cannot rename over");
  }
  ::fsync(folder);
  return true;
}

}  // namespace gw::daemon
