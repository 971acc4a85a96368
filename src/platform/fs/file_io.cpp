#include "platform/fs/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/fs/unique_fd.h"

namespace gw::fs {
namespace {

bool fail(std::string* error, const std::string& what, const std::string& path, int err) {
  if (error) *error = what + " " + path + ": " + std::strerror(err);
  return false;
}

std::string folderOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Reads the opened file whole: a regular file of at most maxSize bytes.
std::optional<std::string> readOpenedFile(const UniqueFd& fd, const std::string& path,
                                          std::size_t maxSize, std::string* error) {
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) {
    fail(error, "cannot stat", path, errno);
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode)) {
    fail(error, "not a regular file:", path, EINVAL);
    return std::nullopt;
  }
  if (std::size_t(st.st_size) > maxSize) {
    fail(error, "file too large:", path, EFBIG);
    return std::nullopt;
  }
  std::string bytes;
  bytes.resize(std::size_t(st.st_size));
  std::size_t have = 0;
  // The file may grow or shrink while it is read: read until end of file, within the bound.
  for (;;) {
    if (have == bytes.size()) {
      if (bytes.size() >= maxSize + 1) break;
      bytes.resize(std::min(maxSize + 1, std::max<std::size_t>(bytes.size() * 2, 4096)));
    }
    ssize_t n = ::read(fd.get(), bytes.data() + have, bytes.size() - have);
    if (n < 0) {
      if (errno == EINTR) continue;
      fail(error, "cannot read", path, errno);
      return std::nullopt;
    }
    if (n == 0) break;
    have += std::size_t(n);
  }
  if (have > maxSize) {
    fail(error, "file too large:", path, EFBIG);
    return std::nullopt;
  }
  bytes.resize(have);
  return bytes;
}

}  // namespace

std::optional<std::string> readFile(const std::string& path, std::size_t maxSize,
                                    std::string* error) {
  // O_NONBLOCK so that opening a FIFO cannot wait for a writer; it is refused below anyway.
  fs::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (fd.get() < 0) {
    fail(error, "cannot open", path, errno);
    return std::nullopt;
  }
  return readOpenedFile(fd, path, maxSize, error);
}

std::optional<std::string> readFileBelow(const std::string& folder, std::string_view relativePath,
                                         std::size_t maxSize, std::string* error) {
  std::string path = folder + "/" + std::string(relativePath);
  UniqueFd current(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (current.get() < 0) {
    fail(error, "cannot open", folder, errno);
    return std::nullopt;
  }
  while (!relativePath.empty()) {
    std::size_t slash = relativePath.find('/');
    std::string name(relativePath.substr(0, slash));
    relativePath = slash == std::string_view::npos ? "" : relativePath.substr(slash + 1);
    if (name.empty() || name == ".") continue;
    if (name == "..") {
      fail(error, "cannot open", path, EINVAL);
      return std::nullopt;
    }
    int flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK;
    if (!relativePath.empty()) flags |= O_DIRECTORY;
    UniqueFd next(::openat(current.get(), name.c_str(), flags));
    if (next.get() < 0) {
      fail(error, "cannot open", path, errno);
      return std::nullopt;
    }
    current = std::move(next);
  }
  return readOpenedFile(current, path, maxSize, error);
}

bool writeFileAtomically(const std::string& path, std::string_view bytes, mode_t mode,
                         std::string* error) {
  std::string temp = path + ".XXXXXX";
  fs::UniqueFd fd(::mkostemp(temp.data(), O_CLOEXEC));
  if (fd.get() < 0) return fail(error, "cannot create a temporary file for", path, errno);
  auto discard = [&](const char* what) {
    int err = errno;
    ::unlink(temp.c_str());
    return fail(error, what, path, err);
  };
  if (::fchmod(fd.get(), mode) != 0) return discard("cannot set the mode of");
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd.get(), bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return discard("cannot write");
    }
    done += std::size_t(n);
  }
  if (::fsync(fd.get()) != 0) return discard("cannot sync");
  if (::close(fd.release()) != 0) return discard("cannot close");
  if (::rename(temp.c_str(), path.c_str()) != 0) return discard("cannot rename over");
  fs::UniqueFd folder(::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.get() >= 0) ::fsync(folder.get());
  return true;
}

}  // namespace gw::fs
