#include "schedule/limits/stored_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/fs/unique_fd.h"

namespace gw::limits {
namespace {

std::nullopt_t fail(std::string* error, const std::string& what) {
  if (error) *error = what;
  return std::nullopt;
}

}  // namespace

std::optional<plist::Value> readStoredPropertyList(const std::string& path, std::string* error) {
  // O_NONBLOCK: opening a FIFO must not wait for a writer; it is refused as no regular file.
  fs::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK));
  if (fd.get() < 0) return fail(error, "cannot open " + path + ": " + std::strerror(errno));
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) {
    return fail(error, "cannot stat " + path + ": " + std::strerror(errno));
  }
  if (!S_ISREG(st.st_mode)) return fail(error, "not a regular file: " + path);
  if (std::size_t(st.st_size) > kMaxStoredFileSize) return fail(error, "file too large: " + path);
  std::string bytes;
  bytes.resize(std::size_t(st.st_size) + 1);
  std::size_t have = 0;
  // Read to the end, one byte beyond the stated size, to notice a file that grew meanwhile.
  while (have < bytes.size()) {
    ssize_t n = ::read(fd.get(), bytes.data() + have, bytes.size() - have);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail(error, "cannot read " + path + ": " + std::strerror(errno));
    if (n == 0) break;
    have += std::size_t(n);
  }
  if (have > std::size_t(st.st_size)) return fail(error, "file changed while read: " + path);
  bytes.resize(have);
  plist::ReadOptions options;
  options.mutability = plist::Mutability::MutableContainers;
  plist::ReadResult result = plist::readPropertyList(std::string_view(bytes), options);
  if (!result) return fail(error, path + ": " + result.error);
  return std::move(*result.value);
}

bool storedFileExists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace gw::limits
