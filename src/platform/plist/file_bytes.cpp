#include "platform/plist/file_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "platform/fs/unique_fd.h"

namespace gw::plist {
namespace {

bool fail(std::string& error, const char* what, const std::string& path, int err) {
  error = std::string(what) + " " + path + ": " + std::strerror(err);
  return false;
}

}  // namespace

bool readFileBytes(const std::string& path, std::size_t maxSize, FileBytes& out,
                   std::string& error) {
  fs::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!fd) return fail(error, "cannot open", path, errno);
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) return fail(error, "cannot stat", path, errno);
  if (!S_ISREG(st.st_mode)) return fail(error, "not a regular file:", path, EINVAL);
  if (std::uint64_t(st.st_size) > maxSize) return fail(error, "file too large:", path, EFBIG);
  const std::size_t expected = std::size_t(st.st_size);
  out.bytes.reset(new (std::nothrow) std::uint8_t[expected ? expected : 1]);
  if (!out.bytes) return fail(error, "cannot read", path, ENOMEM);
  std::size_t have = 0;
  for (;;) {
    std::uint8_t probe[16];
    const bool atEnd = have == expected;
    std::uint8_t* into = atEnd ? probe : out.bytes.get() + have;
    ssize_t n = ::read(fd.get(), into, atEnd ? sizeof probe : expected - have);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail(error, "cannot read", path, errno);
    if (n == 0) break;  // the end, or a file that shrank: what was read is the file
    if (atEnd) {
      error = "cannot read " + path + ": the file grew while it was read";
      return false;
    }
    have += std::size_t(n);
  }
  out.size = have;
  return true;
}

}  // namespace gw::plist
