// The two small Mach-O header readers the application scanner uses, and the walk order.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "gatewise/identity.h"

namespace {

constexpr std::uint32_t kSwappedMagic = 0xCEFAEDFE;
constexpr std::uint32_t kSwappedMagic64 = 0xCFFAEDFE;
constexpr std::uint32_t kPEFMagic = 0x4A6F7921;  // "Joy!"

}  // namespace

ssize_t fdread(int fd, void* buffer, size_t count, off_t offset) {
  ssize_t result;
  do {
    result = ::pread(fd, buffer, count, offset);
  } while (result < 0 && errno == EINTR);
  return result;
}

void ReadMachHeader(int fd, GWMachHeader* header, off_t offset) {
  if (header == nullptr) return;
  std::uint32_t words[7] = {};
  fdread(fd, words, sizeof words, offset);
  if (words[0] == kSwappedMagic || words[0] == kSwappedMagic64) {
    for (std::uint32_t& word : words) word = __builtin_bswap32(word);
  } else if (std::memcmp(words, "Joy!", 4) == 0) {
    std::uint32_t pef[7] = {kPEFMagic,
                            __builtin_bswap32(words[1]),
                            __builtin_bswap32(words[2]),
                            __builtin_bswap32(words[3]),
                            0,
                            0,
                            0};
    std::memcpy(words, pef, sizeof words);
  }
  std::memcpy(header, words, sizeof words);
}

int CompareFilenames(const FTSENT** a, const FTSENT** b) {
  return std::strcmp((*a)->fts_name, (*b)->fts_name);
}
