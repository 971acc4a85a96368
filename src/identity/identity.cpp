// IdentityCreateWithPath: the identity record of a file or bundle folder.
//
// Resource forks on Linux: no Linux file system offers named forks, so the
// "<path>/..namedfork/rsrc" look-up fails with ENOTDIR and the "._" sidecar (double-file) beside
// the file stands for the fork, read as stated below. Extended attributes are not consulted. As on
// the original platform, the sidecar's entry ids are compared without byte-order conversion, so on
// a little-endian host only entries whose id bytes are 02 00 00 00 count as resource forks;
// identities made on hosts of either byte order therefore stay what they always were.
//
// The tree may belong to someone who changes it while it is read. Every entry is opened relative
// to its folder's descriptor (kept open down the walk), without following a symbolic link and
// without blocking (a FIFO opens at once), and the opened descriptor's type is checked: an entry
// that is no longer a regular file aborts the identity with -1. A sidecar is read only when it is a
// regular file, and the work spent on it is bounded: at most kMaxSidecarEntries descriptors, and
// no more resource bytes hashed than the sidecar holds.
#include "gatewise/identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "gatewise/log.h"
#include "gatewise/prebinding.h"
#include "identity/identity_buffer.h"
#include "identity/prebinding/ofile.h"
#include "identity/prebinding/resource_fork.h"
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

// A double file names a handful of entries; anything far beyond that is not one worth reading.
constexpr std::uint32_t kMaxSidecarEntries = 1024;
constexpr std::size_t kSidecarHeaderLength = 26;
constexpr std::size_t kSidecarEntryLength = 12;

// Where an entry is: a name inside an open folder, or (for the walk's root) a path.
struct Location {
  int folder = AT_FDCWD;
  std::string name;
};

int openAt(const Location& at, const std::string& name, int flags) {
  int fd;
  do {
    fd = ::openat(at.folder, name.c_str(),
                  flags | O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// The regular file at `name`, or an invalid descriptor (a link, FIFO, device... is refused).
fs::UniqueFd openRegularFile(const Location& at, const std::string& name) {
  fs::UniqueFd file(openAt(at, name, 0));
  struct stat info;
  if (file.get() >= 0 && (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))) {
    file.reset();
  }
  return file;
}

// The sidecar's name beside the entry: "._" before the last component.
std::string sidecarName(const std::string& name) {
  std::size_t slash = name.rfind('/');
  std::size_t nameAt = slash == std::string::npos ? 0 : slash + 1;
  return name.substr(0, nameAt) + kMorvaneDoublePrefix + name.substr(nameAt);
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
std::int32_t pushSidecarResourceFork(IdentityBuffer& buffer, const Location& entry) {
  fs::UniqueFd file = openRegularFile(entry, sidecarName(entry.name));
  struct stat info;
  if (file.get() < 0 || ::fstat(file.get(), &info) != 0) return 0;
  std::uint8_t header[kSidecarHeaderLength];
  if (fdread(file.get(), header, sizeof header, 0) != ssize_t(sizeof header)) return 0;
  if (bigEndian32(header) != kDoubleFileMagic) return 0;
  std::uint32_t count = std::uint32_t(header[24] << 8 | header[25]);
  count = std::min(count, kMaxSidecarEntries);
  std::vector<std::uint8_t> table(kSidecarEntryLength * count);
  ssize_t got = fdread(file.get(), table.data(), table.size(), off_t(kSidecarHeaderLength));
  if (got < 0) return 0;
  // A descriptor that was not read whole ends the step, as a failed read would.
  count = std::uint32_t(std::size_t(got) / kSidecarEntryLength);
  std::uint64_t budget = std::uint64_t(info.st_size);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint8_t* entryBytes = table.data() + kSidecarEntryLength * i;
    std::uint32_t id;
    std::memcpy(&id, entryBytes, 4);  // deliberately not converted from big-endian
    if (id != kResourceForkEntry) continue;
    std::uint64_t offset = bigEndian32(entryBytes + 4), length = bigEndian32(entryBytes + 8);
    // An entry reaching past the file would read short and append nothing: skip the work.
    if (offset + length > std::uint64_t(info.st_size)) continue;
    if (length > budget) break;
    budget -= length;
    if (::lseek(file.get(), off_t(offset), SEEK_SET) < 0) continue;
    std::int32_t status = _BufferPushMD5FromFile(&buffer, file.get(), length);
    if (status == kOther && buffer.data == nullptr) return kOutOfMemory;
  }
  return 0;
}

std::int32_t pushResourceFork(IdentityBuffer& buffer, const Location& entry,
                              const std::string& path) {
  std::string fork = entry.name + "/..namedfork/rsrc";
  if (path.size() + 17 >= kPathLimit) return 0;
  struct stat info;
  if (::fstatat(entry.folder, fork.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
    if (info.st_size <= 0) return 0;
    fs::UniqueFd file = openRegularFile(entry, fork);
    if (file.get() < 0) return 0;
    return _BufferPushMD5FromFile(&buffer, file.get(), kToEndOfFile);
  }
  if (errno == ENOENT || errno == ENOTDIR) return pushSidecarResourceFork(buffer, entry);
  return kOther;
}

// The whole file behind fd, for unprebinding from memory; nullopt when it cannot be read whole.
std::optional<std::vector<std::uint8_t>> readWhole(int fd) {
  struct stat info;
  if (::fstat(fd, &info) != 0 || std::uint64_t(info.st_size) > macho::kMaxObjectFileSize) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> bytes(std::size_t(info.st_size));
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = fdread(fd, bytes.data() + done, bytes.size() - done, off_t(done));
    if (n <= 0) return std::nullopt;
    done += std::size_t(n);
  }
  return bytes;
}

// A big-endian thin Mach-O image is hashed without its prebinding; anything else byte for byte.
// The image is unprebound from the bytes of the descriptor already checked, never by opening the
// path again (which could by then name something else). A file whose sidecar holds a resource fork
// or type and creator is refused by unprebinding, and so hashed as it is.
std::int32_t pushDataFork(IdentityBuffer& buffer, int fd, const char* path) {
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  std::uint8_t header[28];
  if (fdread(fd, header, sizeof header, 0) == ssize_t(sizeof header)) {
    std::uint32_t magic = bigEndian32(header);
    if ((magic == 0xFEEDFACE || magic == 0xFEEDFACF) && !macho::has_resource_fork(path)) {
      if (std::optional<std::vector<std::uint8_t>> input = readWhole(fd)) {
        void* image = nullptr;
        std::uint64_t size = 0;
        int result;
        {
          std::lock_guard<std::mutex> hold(sPrebindingLock);
          result = unprebind(path, nullptr, nullptr, nullptr, 1, input->data(), input->size(),
                             &image, &size);
        }
        if (result == REDO_PREBINDING_SUCCESS) {
          std::int32_t status = bufferPushMD5(buffer, image, std::size_t(size));
          std::free(image);
          return status;
        }
        std::free(image);
      }
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

std::int32_t hashEntry(IdentityBuffer& buffer, const FTSENT* entry, const Location& at) {
  switch (entry->fts_info) {
    case FTS_F: {
      fs::UniqueFd file = openRegularFile(at, at.name);
      if (file.get() < 0) return kOther;
      std::int32_t status = pushResourceFork(buffer, at, entry->fts_path);
      if (status != 0) return status;
      return pushDataFork(buffer, file.get(), entry->fts_accpath);
    }
    case FTS_SL:
    case FTS_SLNONE: {
      char target[kPathLimit];
      ssize_t length = ::readlinkat(at.folder, at.name.c_str(), target, sizeof target);
      if (length < 0) return kOther;
      return bufferPushMD5(buffer, target, std::size_t(length));
    }
    default:
      return 0;
  }
}

// The descriptors of the folders from the root down to the entry being visited. A folder that
// cannot be opened (it changed since it was listed) leaves an invalid descriptor, so every file
// inside fails to open and the walk aborts.
class FolderStack {
 public:
  void enter(const FTSENT* entry) {
    Location at = locate(entry);
    int fd;
    do {
      fd = ::openat(at.folder, at.name.c_str(),
                    O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    folders_.emplace_back(fd);
  }
  void leave() {
    if (!folders_.empty()) folders_.pop_back();
  }
  Location locate(const FTSENT* entry) const {
    if (entry->fts_level == FTS_ROOTLEVEL || folders_.empty()) return {AT_FDCWD, entry->fts_path};
    return {folders_.back().get(), entry->fts_name};
  }

 private:
  std::vector<fs::UniqueFd> folders_;
};

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
  FolderStack folders;
  while (FTSENT* entry = fts_read(walk.get())) {
    // Entries below a folder are opened through its descriptor, taken when the walk enters it.
    if (entry->fts_info == FTS_DP) folders.leave();
    Location at = folders.locate(entry);
    if (entry->fts_info == FTS_D) folders.enter(entry);
    if (entry->fts_info == FTS_NS || entry->fts_info == FTS_NSOK || entry->fts_info == FTS_ERR ||
        entry->fts_statp == nullptr) {
      continue;
    }
    if (std::strncmp(entry->fts_name, kMorvaneDoublePrefix, kMorvaneDoublePrefixLength) == 0) {
      continue;
    }
    if (isExcluded(entry->fts_path, rootLength, excludedPaths)) continue;
    feedShape(shape, entry);
    std::int32_t status = hashEntry(buffer, entry, at);
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
