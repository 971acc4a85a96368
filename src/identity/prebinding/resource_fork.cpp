#include "identity/prebinding/resource_fork.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "identity/prebinding/byte_order.h"

namespace gw::macho {

std::string sidecarPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  std::size_t nameAt = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, nameAt) + "._" + path.substr(nameAt);
}

bool has_resource_fork(const char* path) {
  if (path == nullptr) return false;
  int fd;
  do {
    fd = ::open(sidecarPath(path).c_str(),
                O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return false;
  // Only a regular file is a sidecar; a FIFO or device planted under its name is not read.
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return false;
  }
  bool found = false;
  std::uint8_t header[26];
  if (::pread(fd, header, sizeof header, 0) == ssize_t(sizeof header) &&
      load32(header, ByteSex::Big) == kDoubleFileMagic) {
    // Descriptors must lie inside the file, which bounds the work for any count.
    std::uint32_t count = load16(header + 24, ByteSex::Big);
    if (info.st_size < 26) count = 0;
    count = std::min<std::uint32_t>(count, std::uint32_t((info.st_size - 26) / 12));
    for (std::uint32_t i = 0; i < count && !found; ++i) {
      std::uint8_t entry[12];
      if (::pread(fd, entry, sizeof entry, off_t(26 + 12 * i)) != ssize_t(sizeof entry)) break;
      std::uint32_t id = load32(entry, ByteSex::Big);
      std::uint32_t offset = load32(entry + 4, ByteSex::Big);
      std::uint32_t length = load32(entry + 8, ByteSex::Big);
      if (id == kDoubleFileResourceForkId && length > 0) found = true;
      if (id == kDoubleFileInfoId && length >= 8) {
        std::uint8_t typeAndCreator[8];
        if (::pread(fd, typeAndCreator, 8, off_t(offset)) == 8) {
          for (std::uint8_t byte : typeAndCreator) found = found || byte != 0;
        }
      }
    }
  }
  ::close(fd);
  return found;
}

}  // namespace gw::macho
