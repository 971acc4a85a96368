// The executable test: Mach-O (thin or fat) and ELF headers.
#include <gatewise/identity.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "platform/apps/item_info.h"

namespace gw::iteminfo {
namespace {

// Mach-O and fat header values, from the published format description.
constexpr std::uint32_t kMachMagic32 = 0xFEEDFACE;
constexpr std::uint32_t kMachMagic64 = 0xFEEDFACF;
constexpr std::uint32_t kFatMagic = 0xCAFEBABE;
constexpr std::uint32_t kFatMagicSwapped = 0xBEBAFECA;
constexpr std::uint32_t kMachExecute = 2;
constexpr std::uint32_t kMachPreload = 5;
constexpr std::uint32_t kFatArchSize = 20;  // cputype, cpusubtype, offset, size, align
constexpr std::uint32_t kMaxFatArchs = 64;

// ELF values, from the System V ABI.
constexpr std::uint8_t kElfMagic[4] = {0x7F, 'E', 'L', 'F'};
constexpr std::uint8_t kElfClass32 = 1, kElfClass64 = 2;
constexpr std::uint8_t kElfDataLittle = 1, kElfDataBig = 2;
constexpr std::uint16_t kElfTypeExec = 2, kElfTypeDyn = 3;
constexpr std::uint32_t kProgramInterpreter = 3, kProgramDynamic = 2;
constexpr std::uint64_t kDynamicNull = 0, kDynamicFlags1 = 0x6FFFFFFB;
constexpr std::uint64_t kFlags1PositionIndependent = 0x08000000;
constexpr std::uint32_t kMaxProgramHeaders = 4096;
constexpr std::uint64_t kMaxDynamicEntries = 4096;

bool readExactly(int fd, void* buffer, std::size_t count, std::uint64_t offset) {
  if (offset > std::uint64_t(INT64_MAX)) return false;
  return fdread(fd, buffer, count, off_t(offset)) == ssize_t(count);
}

std::uint32_t bigEndian32(const std::uint8_t* p) {
  return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}

bool isMachExecutableType(std::uint32_t fileType) {
  return fileType == kMachExecute || fileType == kMachPreload;
}

bool isExecutableMachHeader(int fd, std::uint64_t offset) {
  GWMachHeader header{};
  ReadMachHeader(fd, &header, off_t(offset));
  return (header.magic == kMachMagic32 || header.magic == kMachMagic64) &&
         isMachExecutableType(header.filetype);
}

// A fat file: executable as soon as one architecture's image is.
bool isExecutableFat(int fd, std::uint32_t magic, std::uint64_t fileSize) {
  std::uint32_t count = 0;
  if (!readExactly(fd, &count, sizeof count, 4)) return false;
  if (magic == kFatMagicSwapped) count = __builtin_bswap32(count);
  std::uint64_t fits = fileSize > 8 ? (fileSize - 8) / kFatArchSize : 0;
  count = std::uint32_t(std::min<std::uint64_t>({count, fits, kMaxFatArchs}));
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint8_t arch[kFatArchSize];
    if (!readExactly(fd, arch, sizeof arch, 8 + std::uint64_t(kFatArchSize) * i)) return false;
    std::uint32_t offset = bigEndian32(arch + 8);
    if (offset < fileSize && isExecutableMachHeader(fd, offset)) return true;
  }
  return false;
}

// Reads ELF fields of either width and byte order.
class ElfReader {
 public:
  ElfReader(int fd, bool is64, bool bigEndian) : fd_(fd), is64_(is64), bigEndian_(bigEndian) {}
  bool is64() const { return is64_; }

  std::uint64_t field(const std::uint8_t* p, int width) const {
    std::uint64_t value = 0;
    for (int i = 0; i < width; ++i) {
      int shift = bigEndian_ ? (width - 1 - i) * 8 : i * 8;
      value |= std::uint64_t(p[i]) << shift;
    }
    return value;
  }
  int word() const { return is64_ ? 8 : 4; }
  int fd() const { return fd_; }

 private:
  int fd_;
  bool is64_, bigEndian_;
};

// Whether the dynamic section at [offset, offset + size) carries DF_1_PIE.
bool dynamicSaysPositionIndependent(const ElfReader& elf, std::uint64_t offset,
                                    std::uint64_t size) {
  const int entrySize = 2 * elf.word();
  std::uint64_t entries = std::min<std::uint64_t>(size / entrySize, kMaxDynamicEntries);
  std::uint8_t entry[16];
  for (std::uint64_t i = 0; i < entries; ++i) {
    if (!readExactly(elf.fd(), entry, entrySize, offset + i * entrySize)) return false;
    std::uint64_t tag = elf.field(entry, elf.word());
    if (tag == kDynamicNull) return false;
    if (tag == kDynamicFlags1)
      return elf.field(entry + elf.word(), elf.word()) & kFlags1PositionIndependent;
  }
  return false;
}

bool isExecutableElf(int fd, const std::uint8_t* ident, std::uint64_t fileSize) {
  if (ident[4] != kElfClass32 && ident[4] != kElfClass64) return false;
  if (ident[5] != kElfDataLittle && ident[5] != kElfDataBig) return false;
  ElfReader elf(fd, ident[4] == kElfClass64, ident[5] == kElfDataBig);
  std::uint8_t header[64];
  const std::size_t headerSize = elf.is64() ? 64 : 52;
  if (!readExactly(fd, header, headerSize, 0)) return false;
  std::uint16_t type = std::uint16_t(elf.field(header + 16, 2));
  if (type == kElfTypeExec) return true;
  if (type != kElfTypeDyn) return false;

  std::uint64_t tableOffset = elf.is64() ? elf.field(header + 32, 8) : elf.field(header + 28, 4);
  std::uint64_t entrySize = elf.field(header + (elf.is64() ? 54 : 42), 2);
  std::uint64_t count = elf.field(header + (elf.is64() ? 56 : 44), 2);
  const std::uint64_t minimumEntry = elf.is64() ? 56 : 32;
  if (entrySize < minimumEntry || tableOffset >= fileSize) return false;
  count = std::min<std::uint64_t>(count, kMaxProgramHeaders);
  for (std::uint64_t i = 0; i < count; ++i) {
    std::uint8_t entry[56];
    if (!readExactly(fd, entry, minimumEntry, tableOffset + i * entrySize)) return false;
    std::uint32_t segmentType = std::uint32_t(elf.field(entry, 4));
    if (segmentType == kProgramInterpreter) return true;
    if (segmentType != kProgramDynamic) continue;
    std::uint64_t offset = elf.is64() ? elf.field(entry + 8, 8) : elf.field(entry + 4, 4);
    std::uint64_t size = elf.is64() ? elf.field(entry + 32, 8) : elf.field(entry + 16, 4);
    if (offset < fileSize && dynamicSaysPositionIndependent(elf, offset, size)) return true;
  }
  return false;
}

}  // namespace

bool isExecutableImage(int fd) {
  struct stat status;
  if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  std::uint64_t fileSize = std::uint64_t(status.st_size);
  std::uint8_t ident[16];
  if (!readExactly(fd, ident, sizeof ident, 0)) return false;
  if (std::memcmp(ident, kElfMagic, sizeof kElfMagic) == 0)
    return isExecutableElf(fd, ident, fileSize);

  std::uint32_t asRead;
  std::memcpy(&asRead, ident, sizeof asRead);
  if (asRead == kFatMagic || asRead == kFatMagicSwapped)
    return isExecutableFat(fd, asRead, fileSize);
  return isExecutableMachHeader(fd, 0);
}

}  // namespace gw::iteminfo
