// IdentityCreateWithPath: the identity record of a file or bundle folder.
//
// Resource forks on Linux: no Linux file system offers named forks, so the
// "<path>/..namedfork/rsrc" look-up fails with ENOTDIR and the "._" sidecar (double-file) beside
// the file stands for the fork, read as stated below. Extended attributes are not consulted. As on
// the original platform, the sidecar's entry ids are compared without byte-order conversion, so on
// a little-endian host only entries whose id bytes are 02 00 00 00 count as resource forks;
// identities made on hosts of either byte order therefore stay what they always were.
#include "gatewise/identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "gatewise/log.h"
#include "gatewise/prebinding.h"
#include "identity/identity_buffer.h"
#include "identity/prebinding_lock.h"
#include "platform/digest/digest.h"
#include "platform/fs/unique_fd.h"

const char* const kMorvaneDoublePrefix = "._";
const int32_t kMorvaneDoublePrefixLength = 2;

namespace gw::identity {

std::mutex sPrebindingLock;

namespace {

constexpr std::int32_t kBadArgument = -50;
constexpr std::int32_t kOutOfMemory = -108;
constexpr std::int32_t kOther = -1;
constexpr std::size_t kPathLimit = 1024;
constexpr std::size_t kHeaderLength = 48;
constexpr std::uint32_t kFormatVersion = 1;
constexpr char kFormatMark[4] = {'4', '2', '5', '3'};
constexpr std::uint32_t kDoubleFileMagic = 0x00051607;
constexpr std::uint32_t kResourceForkEntry = 2;

void putBigEndian32(std::uint8_t* at, std::uint32_t value) {
  at[0] = std::uint8_t(value >> 24), at[1] = std::uint8_t(value >> 16);
  at[2] = std::uint8_t(value >> 8), at[3] = std::uint8_t(value);
}
std::uint32_t bigEndian32(const std::uint8_t* at) {
  return std::uint32_t(at[0]) << 24 | std::uint32_t(at[1]) << 16 | std::uint32_t(at[2]) << 8 |
         at[3];
}

int openReadOnly(const char* path) {
  int fd;
  do {
    fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

class FtsWalk {
 public:
  explicit FtsWalk(FTS* fts) : fts_(fts) {}
  ~FtsWalk() {
    if (fts_ != nullptr) fts_close(fts_);
  }
  FtsWalk(const FtsWalk&) = delete;
  FtsWalk& operator=(const FtsWalk&) = delete;
  FTS* get() const { return fts_; }

 private:
  FTS* fts_;
};

// The resource fork of the sidecar "._<name>": each entry whose id reads 2 in host order is
// hashed. Failures to open or read end the step quietly; only a buffer that cannot grow aborts.
std::int32_t pushSidecarResourceFork(IdentityBuffer& buffer, const std::string& path) {
  std::size_t slash = path.rfind('/');
  std::size_t nameAt = slash == std::string::npos ? 0 : slash + 1;
  std::string sidecar = path.substr(0, nameAt) + kMorvaneDoublePrefix + path.substr(nameAt);
  fs::UniqueFd file(openReadOnly(sidecar.c_str()));
  if (file.get() < 0) return 0;
  std::uint8_t header[26];
  if (fdread(file.get(), header, sizeof header, 0) != ssize_t(sizeof header)) return 0;
  if (bigEndian32(header) != kDoubleFileMagic) return 0;
  std::uint16_t count = std::uint16_t(header[24] << 8 | header[25]);
  for (std::uint16_t i = 0; i < count; ++i) {
    std::uint8_t entry[12];
    if (fdread(file.get(), entry, sizeof entry, off_t(26 + 12 * i)) != ssize_t(sizeof entry)) {
      return 0;
    }
    std::uint32_t id;
    std::memcpy(&id, entry, 4);  // deliberately not converted from big-endian
    if (id != kResourceForkEntry) continue;
    if (::lseek(file.get(), off_t(bigEndian32(entry + 4)), SEEK_SET) < 0) continue;
    std::int32_t status = _BufferPushMD5FromFile(&buffer, file.get(), bigEndian32(entry + 8));
    if (status == kOther && buffer.data == nullptr) return kOutOfMemory;
  }
  return 0;
}

std::int32_t pushResourceFork(IdentityBuffer& buffer, const std::string& path) {
  std::string fork = path + "/..namedfork/rsrc";
  if (fork.size() >= kPathLimit) return 0;
  struct stat info;
  if (::lstat(fork.c_str(), &info) == 0) {
    if (info.st_size <= 0) return 0;
    fs::UniqueFd file(openReadOnly(fork.c_str()));
    if (file.get() < 0) return 0;
    return _BufferPushMD5FromFile(&buffer, file.get(), kToEndOfFile);
  }
  if (errno == ENOENT || errno == ENOTDIR) return pushSidecarResourceFork(buffer, path);
  return kOther;
}

// A big-endian thin Mach-O image is hashed without its prebinding; anything else byte for byte.
std::int32_t pushDataFork(IdentityBuffer& buffer, int fd, const char* path) {
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  std::uint8_t header[28];
  if (fdread(fd, header, sizeof header, 0) == ssize_t(sizeof header)) {
    std::uint32_t magic = bigEndian32(header);
    if (magic == 0xFEEDFACE || magic == 0xFEEDFACF) {
      void* image = nullptr;
      std::uint64_t size = 0;
      int result;
      {
        std::lock_guard<std::mutex> hold(sPrebindingLock);
        result = unprebind(path, nullptr, nullptr, nullptr, 1, nullptr, 0, &image, &size);
      }
      if (result == REDO_PREBINDING_SUCCESS) {
        std::int32_t status = bufferPushMD5(buffer, image, std::size_t(size));
        std::free(image);
        return status;
      }
      std::free(image);
    }
  }
  // fdread does not move the file position, so the data fork is read from its start.
  if (::lseek(fd, 0, SEEK_SET) < 0) return kOther;
  return _BufferPushMD5FromFile(&buffer, fd, kToEndOfFile);
}

bool isExcluded(const char* entryPath, std::size_t rootLength, const char* const* excludedPaths) {
  if (excludedPaths == nullptr || std::strlen(entryPath) <= rootLength) return false;
  const char* relative = entryPath + rootLength;
  while (*relative == '/') ++relative;
  for (const char* const* excluded = excludedPaths; *excluded != nullptr; ++excluded) {
    if (std::strcmp(relative, *excluded) == 0) return true;
  }
  return false;
}

void feedShape(digest::Digest& shape, const FTSENT* entry) {
  std::uint8_t numbers[8];
  putBigEndian32(numbers, std::uint32_t(entry->fts_level));
  putBigEndian32(numbers + 4, std::uint32_t(entry->fts_statp->st_mode & S_IFMT));
  shape.update(numbers, sizeof numbers);
  if (entry->fts_level != FTS_ROOTLEVEL) shape.update(entry->fts_name, entry->fts_namelen);
}

std::int32_t hashEntry(IdentityBuffer& buffer, const FTSENT* entry) {
  switch (entry->fts_info) {
    case FTS_F: {
      fs::UniqueFd file(openReadOnly(entry->fts_accpath));
      if (file.get() < 0) return kOther;
      std::int32_t status = pushResourceFork(buffer, entry->fts_path);
      if (status != 0) return status;
      return pushDataFork(buffer, file.get(), entry->fts_accpath);
    }
    case FTS_SL:
    case FTS_SLNONE: {
      char target[kPathLimit];
      ssize_t length = ::readlink(entry->fts_accpath, target, sizeof target);
      if (length < 0) return kOther;
      return bufferPushMD5(buffer, target, std::size_t(length));
    }
    default:
      return 0;
  }
}

std::int32_t createIdentity(const char* path, const char* const* excludedPaths,
                            std::uint8_t** identity, std::uint32_t* length) {
  IdentityBuffer buffer;
  if (!bufferCreate(buffer)) return kOutOfMemory;
  BufferOwner owner(buffer);
  std::uint8_t head[kHeaderLength] = {};
  std::memcpy(head, kFormatMark, 4);
  putBigEndian32(head + 4, kFormatVersion);
  bufferAppend(buffer, head, sizeof head);
  digest::Digest shape(digest::Algorithm::MD5);

  char* roots[] = {const_cast<char*>(path), nullptr};
  FtsWalk walk(fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, CompareFilenames));
  if (walk.get() == nullptr) return kOther;
  std::size_t rootLength = std::strlen(path);
  errno = 0;
  while (FTSENT* entry = fts_read(walk.get())) {
    if (entry->fts_info == FTS_NS || entry->fts_info == FTS_NSOK || entry->fts_info == FTS_ERR ||
        entry->fts_statp == nullptr) {
      continue;
    }
    if (std::strncmp(entry->fts_name, kMorvaneDoublePrefix, kMorvaneDoublePrefixLength) == 0) {
      continue;
    }
    if (isExcluded(entry->fts_path, rootLength, excludedPaths)) continue;
    feedShape(shape, entry);
    std::int32_t status = hashEntry(buffer, entry);
    if (status != 0) {
      GW_LOG(1, "*** identity of %s failed at %s: %d", path, entry->fts_path, status);
      return status;
    }
  }
  if (buffer.data == nullptr) return kOutOfMemory;

  std::uint8_t* record = buffer.data;
  if (!shape.finish(record + 28)) return kOther;
  std::uint32_t count = std::uint32_t((buffer.length - kHeaderLength) / digest::kMD5Length);
  putBigEndian32(record + 44, count);
  auto sha1 = digest::sha1({record + 28, buffer.length - 28});
  std::memcpy(record + 8, sha1.data(), sha1.size());
  *length = std::uint32_t(buffer.length);
  *identity = owner.release();
  return 0;
}

}  // namespace
}  // namespace gw::identity

int32_t IdentityCreateWithPath(const char* path, const char* const* excludedPaths,
                               uint8_t** identity, uint32_t* length) {
  if (identity != nullptr) *identity = nullptr;
  if (length != nullptr) *length = 0;
  if (path == nullptr || identity == nullptr || length == nullptr)
    return gw::identity::kBadArgument;
  try {
    return gw::identity::createIdentity(path, excludedPaths, identity, length);
  } catch (const std::bad_alloc&) {
    return gw::identity::kOutOfMemory;
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
    return gw::identity::kOther;
  }
}
