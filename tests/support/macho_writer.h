// Test fixtures: small Mach-O images written from scratch, in canonical form or prebound.
//
// One model describes an executable (or a dynamic library) with a __PAGEZERO (executables), __TEXT,
// __DATA and __LINKEDIT segment; non-lazy and lazy symbol pointer sections; local relocations
// (plain, and scattered ones recording each lazy pointer's original value); external relocations
// to an undefined and to a defined symbol; a symbol table with a debugging entry, local, defined
// external and undefined symbols; LC_LOAD_DYLIB and LC_LOAD_WEAK_DYLIB commands (and LC_ID_DYLIB
// for a library); LC_PREBIND_CKSUM. writeImage lays it out either canonically or as prebinding
// would leave it: bound addresses in the pointers, relocated data and undefined symbols, library
// timestamps and versions stamped, the checksum set, the prebound flag, and for a library every
// address moved to its prebound base. The field offsets are written out here by hand, sharing
// nothing with the library's reader, so that a layout mistake on either side shows.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gwtest::macho {

using Bytes = std::vector<std::uint8_t>;

struct ImageOptions {
  bool bigEndian = true;  // false: a little-endian (i386 / x86_64) image
  bool is64 = false;
  bool dylib = false;  // a dynamic library instead of an executable
};

struct Prebinding {
  std::uint32_t base = 0x90000000;  // where a library is prebound (ignored for executables)
  std::uint32_t libraryTimestamps[2] = {0x40000001, 0x40000002};
  std::uint32_t currentVersion = 0x00580100;
  std::uint32_t compatibilityVersion = 0x00010000;
  std::uint32_t idTimestamp = 0x41000000;  // a library's own LC_ID_DYLIB stamp
  std::uint32_t checksum = 0x5EEDC0DE;
  // Bound addresses of the undefined symbols _malloc, _printf, _exit and _other.
  std::uint32_t bound[4] = {0x90001000, 0x90002000, 0x90003000, 0x90004000};
};

// The image, canonical when prebinding is empty.
Bytes writeImage(const ImageOptions& options, const std::optional<Prebinding>& prebinding = {});

// The processor type and subtype writeImage uses for options.
std::int32_t cpuTypeFor(const ImageOptions& options);

struct FatSlice {
  std::int32_t cputype;
  std::int32_t cpusubtype;
  Bytes bytes;
};
// A fat file: big-endian header, slices aligned to 4096 bytes.
Bytes writeFat(const std::vector<FatSlice>& slices);

struct ArchiveMember {
  std::string name;
  Bytes bytes;
};
// A "!<arch>" archive with an empty "__.SYMDEF SORTED" table of contents first. Names longer than
// 15 characters or holding a space are stored "#1/N" style.
Bytes writeArchive(const std::vector<ArchiveMember>& members);

}  // namespace gwtest::macho
