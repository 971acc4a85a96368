#include "platform/codesign/signature_store.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/codesign/cms_signature.h"
#include "platform/fs/unique_fd.h"

namespace gw::codesign {
namespace {

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

// A descriptor for the program (file or folder) that does not follow a final symbolic link.
// Attributes need a real descriptor, not O_PATH; O_NONBLOCK keeps a planted FIFO from blocking.
fs::UniqueFd openProgram(const std::string& path) {
  return fs::UniqueFd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
}

}  // namespace

std::string signatureAttributeName() {
  return ::geteuid() == 0 ? "trusted.gatewise.signature" : "user.gatewise.signature";
}

std::optional<plist::Data> readEmbeddedSignature(const std::string& path, std::string* error) {
  fs::UniqueFd fd = openProgram(path);
  if (!fd) {
    *error = errnoText("cannot open " + path);
    return std::nullopt;
  }
  std::string name = signatureAttributeName();
  ssize_t size = ::fgetxattr(fd.get(), name.c_str(), nullptr, 0);
  if (size < 0) {
    *error = errno == ENODATA ? "no embedded signature" : errnoText("cannot read signature");
    return std::nullopt;
  }
  if (std::size_t(size) > kMaxSignatureSize) {
    *error = "embedded signature is too large";
    return std::nullopt;
  }
  plist::Data value(static_cast<std::size_t>(size));
  // The attribute may change between the two calls; a second size is taken as it comes.
  ssize_t read = ::fgetxattr(fd.get(), name.c_str(), value.data(), value.size());
  if (read < 0) {
    *error = errnoText("cannot read signature");
    return std::nullopt;
  }
  value.resize(std::size_t(read));
  return value;
}

bool writeEmbeddedSignature(const std::string& path, const plist::Data& signature,
                            std::string* error) {
  fs::UniqueFd fd = openProgram(path);
  if (!fd) {
    *error = errnoText("cannot open " + path);
    return false;
  }
  std::string name = signatureAttributeName();
  if (::fsetxattr(fd.get(), name.c_str(), signature.data(), signature.size(), XATTR_CREATE) != 0) {
    *error = errnoText("cannot store signature");
    return false;
  }
  return true;
}

std::optional<plist::Data> passThroughDetachedFile(const std::string& path,
                                                   const plist::Data& bytes, std::string* error) {
  fs::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) {
    *error = errnoText("cannot create " + path);
    return std::nullopt;
  }
  std::optional<plist::Data> result;
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::pwrite(fd.get(), bytes.data() + done, bytes.size() - done, off_t(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += std::size_t(n);
  }
  if (done == bytes.size()) {
    // Read back through the same descriptor: the name may have been replaced meanwhile.
    plist::Data readBack(bytes.size());
    std::size_t got = 0;
    while (got < readBack.size()) {
      ssize_t n = ::pread(fd.get(), readBack.data() + got, readBack.size() - got, off_t(got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += std::size_t(n);
    }
    if (got == readBack.size()) result = std::move(readBack);
  }
  if (!result) *error = errnoText("cannot write " + path);
  ::unlink(path.c_str());
  return result;
}

VolumeState volumeStateOf(const std::string& path, std::string* error) {
  fs::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  if (!fd) {
    *error = errnoText("cannot open " + path);
    return VolumeState::Unknown;
  }
  struct statvfs volume;
  if (::fstatvfs(fd.get(), &volume) != 0) {
    *error = errnoText("cannot read volume of " + path);
    return VolumeState::Locked;
  }
  if ((volume.f_flag & ST_RDONLY) != 0) return VolumeState::Locked;
  int flags = 0;
  // File systems without inode flags (ENOTTY) have no immutable files.
  if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL) != 0)
    return VolumeState::Locked;
  return VolumeState::Writable;
}

}  // namespace gw::codesign
