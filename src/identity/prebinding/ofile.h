// The reader of Mach-O files: thin images (32 or 64-bit, either byte order), fat files and
// "!<arch>" archives (members with "#1/N" long names), read whole into memory.
//
// ofile_map / ofile_map_from_memory copy the file into an OFile; breakout then finds every image
// in it and checks it: each fat slice and archive member lies inside the file, each load command
// inside the header's command area, and every table a command points at (sections, relocations,
// symbols, strings, indirect symbols, module and reference tables, hints) inside its image. What
// passes can be read and rewritten in place with no further bounds worry except table indices,
// which users check as they use them. Failures come back as a one-line reason.
//
// Not thread-safe per OFile; separate OFiles are independent. An OFile owns its bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "identity/prebinding/byte_order.h"
#include "identity/prebinding/macho_format.h"

namespace gw::macho {

enum class FileKind { Unknown, Thin, Fat, Archive };

// One image of the file (a thin file has one; a fat file one per slice; an archive one per
// member). Offsets are from the start of the whole file.
struct ArchRecord {
  std::string memberName;  // archive member name, empty otherwise
  std::string archName;    // "ppc", "i386"..., or "" when the processor is unknown
  std::size_t offset = 0;  // of the image (member bytes after a long name)
  std::size_t size = 0;
  bool isMachO = false;  // archive members may hold other things (the table of contents)
  ByteSex byteSex = ByteSex::Unknown;
  bool swapped = false;  // the image's byte order is not the host's
  bool is64 = false;
  mach_header_64 header{};  // host order; reserved is 0 for a 32-bit image
  std::size_t headerSize = 0;
  std::vector<std::size_t> commands;  // offset of each load command, from the image start
  std::optional<std::size_t> symtabAt, dysymtabAt;
  symtab_command symtab{};
  dysymtab_command dysymtab{};
};

struct OFile {
  std::string name;
  std::vector<std::uint8_t> bytes;
  FileKind kind = FileKind::Unknown;
  std::vector<ArchRecord> archs;
  std::uint32_t fatArchCount = 0;
};

// Largest file the reader takes whole into memory.
inline constexpr std::size_t kMaxObjectFileSize = std::size_t(1) << 31;

bool ofile_map(const std::string& path, OFile& ofile, std::string& error);
bool ofile_map_from_memory(std::span<const std::uint8_t> bytes, const std::string& name,
                           OFile& ofile, std::string& error);
void ofile_unmap(OFile& ofile);

// Recognises the file kind and fills ofile.archs, checking everything listed above.
bool breakout(OFile& ofile, std::string& error);

// Checks one thin image at [offset, offset + size) of the file and fills the record's header,
// command offsets and tables. The reason names what is out of bounds.
bool check_Mach_O(std::span<const std::uint8_t> image, ArchRecord& arch, std::string& error);

// The text of a load command's string (an lc_str offset within the command), bounded by the
// command; empty when the offset is outside it.
std::string loadCommandString(std::span<const std::uint8_t> image, std::size_t commandAt,
                              std::uint32_t cmdsize, std::uint32_t nameOffset);

// Byte span of one image of the file.
inline std::span<std::uint8_t> imageBytes(OFile& ofile, const ArchRecord& arch) {
  return std::span<std::uint8_t>(ofile.bytes).subspan(arch.offset, arch.size);
}

// Whether [offset, offset + count * unit) lies inside a buffer of `size` bytes, without overflow.
inline bool fitsIn(std::size_t size, std::uint64_t offset, std::uint64_t count,
                   std::uint64_t unit = 1) {
  if (offset > size) return false;
  if (unit != 0 && count > (std::uint64_t(size) - offset) / unit) return false;
  return true;
}

}  // namespace gw::macho
