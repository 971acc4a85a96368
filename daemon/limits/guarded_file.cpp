#include "daemon/limits/guarded_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/fs/unique_fd.h"

namespace gw::daemon {

FileStamp stampOf(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return {};
  return {false,
          st.st_dev,
          st.st_ino,
          st.st_size,
          std::int64_t(st.st_ctim.tv_sec) * 1'000'000'000 + st.st_ctim.tv_nsec,
          std::int64_t(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec};
}

std::optional<std::string> readRegularFile(const std::string& path, std::size_t maxSize,
                                           std::string* error) {
  auto failed = [&](std::string why) -> std::optional<std::string> {
    if (error) *error = std::move(why);
    return std::nullopt;
  };
  fs::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW));
  if (!fd) return failed(std::strerror(errno));
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return failed(std::strerror(errno));
  if (!S_ISREG(st.st_mode)) return failed("not a regular file");
  if (std::uint64_t(st.st_size) > maxSize) {
    return failed("larger than " + std::to_string(maxSize) + " bytes");
  }
  std::string bytes(std::size_t(st.st_size), '\0');
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::read(fd.get(), bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return failed(std::strerror(errno));
    if (n == 0) break;  // shrank while we read: take what is there
    done += std::size_t(n);
  }
  bytes.resize(done);
  return bytes;
}

}  // namespace gw::daemon
