#include "identity/prebinding/ofile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "identity/prebinding/arch_names.h"
#include "platform/fs/unique_fd.h"

namespace gw::macho {
namespace {

std::string malformed(const std::string& what) {
  return "truncated or malformed object (" + what + ")";
}

bool hasMachOMagic(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < 4) return false;
  std::uint32_t magic = load32(bytes.data(), ByteSex::Big);
  return magic == MH_MAGIC || magic == MH_CIGAM || magic == MH_MAGIC_64 || magic == MH_CIGAM_64;
}

// A decimal field of an archive header: digits, then spaces to the end of the field.
std::optional<std::uint64_t> parseDecimalField(const char* field, std::size_t width) {
  std::uint64_t value = 0;
  std::size_t i = 0;
  for (; i < width && field[i] >= '0' && field[i] <= '9'; ++i) {
    value = value * 10 + std::uint64_t(field[i] - '0');
    if (value > kMaxObjectFileSize) return std::nullopt;
  }
  if (i == 0) return std::nullopt;
  for (; i < width; ++i) {
    if (field[i] != ' ') return std::nullopt;
  }
  return value;
}

bool checkSectionTables(std::span<const std::uint8_t> image, const ArchRecord& arch,
                        std::size_t sectionAt, std::uint32_t index, std::string& error) {
  std::uint64_t offset, size;
  std::uint32_t flags, reloff, nreloc;
  if (arch.is64) {
    auto s = loadStruct<section_64>(image.data() + sectionAt, arch.byteSex);
    offset = s.offset, size = s.size, flags = s.flags, reloff = s.reloff, nreloc = s.nreloc;
  } else {
    auto s = loadStruct<section>(image.data() + sectionAt, arch.byteSex);
    offset = s.offset, size = s.size, flags = s.flags, reloff = s.reloff, nreloc = s.nreloc;
  }
  std::uint32_t type = flags & SECTION_TYPE;
  bool zeroFill = type == 0x1 || type == 0xC || type == 0x12;
  if (!zeroFill && size != 0 && !fitsIn(image.size(), offset, size)) {
    error = malformed("section " + std::to_string(index) + " extends past the end of the file");
    return false;
  }
  if (nreloc != 0 && !fitsIn(image.size(), reloff, nreloc, kRelocationSize)) {
    error = malformed("relocation entries of section " + std::to_string(index) +
                      " extend past the end of the file");
    return false;
  }
  return true;
}

bool checkSegment(std::span<const std::uint8_t> image, const ArchRecord& arch, std::size_t at,
                  std::uint32_t cmdsize, std::uint32_t& sectionIndex, std::string& error) {
  std::size_t commandSize = arch.is64 ? sizeof(segment_command_64) : sizeof(segment_command);
  std::size_t sectionSize = arch.is64 ? sizeof(section_64) : sizeof(section);
  if (cmdsize < commandSize) {
    error = malformed("segment command too small");
    return false;
  }
  std::uint32_t nsects;
  std::uint64_t fileoff, filesize;
  if (arch.is64) {
    auto segment = loadStruct<segment_command_64>(image.data() + at, arch.byteSex);
    nsects = segment.nsects, fileoff = segment.fileoff, filesize = segment.filesize;
  } else {
    auto segment = loadStruct<segment_command>(image.data() + at, arch.byteSex);
    nsects = segment.nsects, fileoff = segment.fileoff, filesize = segment.filesize;
  }
  if (std::uint64_t(nsects) * sectionSize > cmdsize - commandSize) {
    error = malformed("sections of a segment extend past the end of its command");
    return false;
  }
  if (filesize != 0 && !fitsIn(image.size(), fileoff, filesize)) {
    error = malformed("segment extends past the end of the file");
    return false;
  }
  for (std::uint32_t s = 0; s < nsects; ++s) {
    if (!checkSectionTables(image, arch, at + commandSize + s * sectionSize, ++sectionIndex,
                            error)) {
      return false;
    }
  }
  return true;
}

bool checkDysymtab(std::span<const std::uint8_t> image, const ArchRecord& arch,
                   std::string& error) {
  const dysymtab_command& d = arch.dysymtab;
  std::uint64_t nsyms = arch.symtabAt ? arch.symtab.nsyms : 0;
  struct Range {
    std::uint32_t first, count;
    const char* what;
  };
  for (const Range& range : {Range{d.ilocalsym, d.nlocalsym, "local symbols"},
                             Range{d.iextdefsym, d.nextdefsym, "external symbols"},
                             Range{d.iundefsym, d.nundefsym, "undefined symbols"}}) {
    if (std::uint64_t(range.first) + range.count > nsyms) {
      error = malformed(std::string(range.what) + " extend past the end of the symbol table");
      return false;
    }
  }
  std::size_t moduleSize = arch.is64 ? 56 : sizeof(dylib_module);
  struct Table {
    std::uint32_t offset, count;
    std::size_t unit;
    const char* what;
  };
  for (const Table& table :
       {Table{d.tocoff, d.ntoc, sizeof(dylib_table_of_contents), "table of contents"},
        Table{d.modtaboff, d.nmodtab, moduleSize, "module table"},
        Table{d.extrefsymoff, d.nextrefsyms, 4, "referenced symbol table"},
        Table{d.indirectsymoff, d.nindirectsyms, 4, "indirect symbol table"},
        Table{d.extreloff, d.nextrel, kRelocationSize, "external relocation entries"},
        Table{d.locreloff, d.nlocrel, kRelocationSize, "local relocation entries"}}) {
    if (table.count != 0 && !fitsIn(image.size(), table.offset, table.count, table.unit)) {
      error = malformed(std::string(table.what) + " extends past the end of the file");
      return false;
    }
  }
  return true;
}

bool checkArchive(OFile& ofile, std::size_t start, std::size_t size, std::string& error) {
  std::span<const std::uint8_t> bytes(ofile.bytes);
  std::size_t at = start + SARMAG;
  std::size_t end = start + size;
  while (at < end) {
    if (end - at < sizeof(ar_hdr)) {
      error = "truncated or malformed archive (member header extends past the end of the file)";
      return false;
    }
    ar_hdr header;
    std::memcpy(&header, bytes.data() + at, sizeof header);
    if (std::memcmp(header.ar_fmag, ARFMAG, 2) != 0) {
      error = "truncated or malformed archive (bad member header at offset " +
              std::to_string(at - start) + ")";
      return false;
    }
    auto memberSize = parseDecimalField(header.ar_size, sizeof header.ar_size);
    std::size_t dataAt = at + sizeof(ar_hdr);
    if (!memberSize || !fitsIn(end, dataAt, *memberSize)) {
      error = "truncated or malformed archive (member at offset " + std::to_string(at - start) +
              " extends past the end of the file)";
      return false;
    }
    ArchRecord member;
    std::size_t nameLength = 0;
    if (std::memcmp(header.ar_name, AR_EFMT1, 3) == 0) {
      auto length = parseDecimalField(header.ar_name + 3, sizeof header.ar_name - 3);
      if (!length || *length > *memberSize) {
        error = "truncated or malformed archive (bad long name of member at offset " +
                std::to_string(at - start) + ")";
        return false;
      }
      nameLength = std::size_t(*length);
      const char* name = reinterpret_cast<const char*>(bytes.data() + dataAt);
      member.memberName.assign(name, strnlen(name, nameLength));
    } else {
      std::string name(header.ar_name, sizeof header.ar_name);
      name.erase(name.find_last_not_of(' ') + 1);
      if (!name.empty() && name.back() == '/' && name != "/" && name != "//") name.pop_back();
      member.memberName = name;
    }
    member.offset = dataAt + nameLength;
    member.size = std::size_t(*memberSize) - nameLength;
    auto image = bytes.subspan(member.offset, member.size);
    if (hasMachOMagic(image)) {
      if (!check_Mach_O(image, member, error)) {
        error = ofile.name + "(" + member.memberName + "): " + error;
        return false;
      }
    }
    ofile.archs.push_back(std::move(member));
    at = dataAt + std::size_t(*memberSize);
    at += at & 1;  // members start at even offsets
  }
  return true;
}

bool isArchive(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= SARMAG && std::memcmp(bytes.data(), ARMAG, SARMAG) == 0;
}

}  // namespace

bool ofile_map(const std::string& path, OFile& ofile, std::string& error) {
  ofile_unmap(ofile);
  ofile.name = path;
  int fd;
  do {
    // Without waiting on a FIFO (refused below). Links are followed: libraries are often linked
    // under their install names.
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    error = "can't open file: " + path + " (" + std::strerror(errno) + ")";
    return false;
  }
  fs::UniqueFd file(fd);
  struct stat info;
  if (::fstat(fd, &info) != 0) {
    error = "can't stat file: " + path + " (" + std::strerror(errno) + ")";
    return false;
  }
  if (!S_ISREG(info.st_mode) || std::uint64_t(info.st_size) > kMaxObjectFileSize) {
    error = "not a regular file of a size that can be read: " + path;
    return false;
  }
  ofile.bytes.resize(std::size_t(info.st_size));
  std::size_t done = 0;
  while (done < ofile.bytes.size()) {
    ssize_t n = ::pread(fd, ofile.bytes.data() + done, ofile.bytes.size() - done, off_t(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = "can't read file: " + path + " (" + std::strerror(errno) + ")";
      return false;
    }
    if (n == 0) break;  // the file shrank: take what is there
    done += std::size_t(n);
  }
  ofile.bytes.resize(done);
  return true;
}

bool ofile_map_from_memory(std::span<const std::uint8_t> bytes, const std::string& name,
                           OFile& ofile, std::string& error) {
  ofile_unmap(ofile);
  ofile.name = name;
  if (bytes.size() > kMaxObjectFileSize) {
    error = "file too large: " + name;
    return false;
  }
  ofile.bytes.assign(bytes.begin(), bytes.end());
  return true;
}

void ofile_unmap(OFile& ofile) {
  ofile.bytes.clear();
  ofile.bytes.shrink_to_fit();
  ofile.archs.clear();
  ofile.kind = FileKind::Unknown;
  ofile.fatArchCount = 0;
}

std::string loadCommandString(std::span<const std::uint8_t> image, std::size_t commandAt,
                              std::uint32_t cmdsize, std::uint32_t nameOffset) {
  if (nameOffset >= cmdsize || !fitsIn(image.size(), commandAt, cmdsize)) return {};
  const char* text = reinterpret_cast<const char*>(image.data() + commandAt + nameOffset);
  return std::string(text, strnlen(text, cmdsize - nameOffset));
}

bool check_Mach_O(std::span<const std::uint8_t> image, ArchRecord& arch, std::string& error) {
  if (image.size() < sizeof(mach_header)) {
    error = malformed("mach header extends past the end of the file");
    return false;
  }
  std::uint32_t magic = load32(image.data(), get_host_byte_sex());
  ByteSex host = get_host_byte_sex();
  if (magic == MH_MAGIC || magic == MH_MAGIC_64) {
    arch.byteSex = host;
  } else if (magic == MH_CIGAM || magic == MH_CIGAM_64) {
    arch.byteSex = otherByteSex(host);
  } else {
    error = "not a Mach-O file";
    return false;
  }
  arch.swapped = arch.byteSex != host;
  arch.is64 = magic == MH_MAGIC_64 || magic == MH_CIGAM_64;
  arch.headerSize = arch.is64 ? sizeof(mach_header_64) : sizeof(mach_header);
  if (image.size() < arch.headerSize) {
    error = malformed("mach header extends past the end of the file");
    return false;
  }
  if (arch.is64) {
    arch.header = loadStruct<mach_header_64>(image.data(), arch.byteSex);
  } else {
    auto header = loadStruct<mach_header>(image.data(), arch.byteSex);
    std::memcpy(&arch.header, &header, sizeof header);
    arch.header.reserved = 0;
  }
  const char* name = get_arch_name_from_types(std::int32_t(arch.header.cputype),
                                              std::int32_t(arch.header.cpusubtype));
  arch.archName = name != nullptr ? name : "";
  arch.isMachO = true;
  std::uint32_t sizeofcmds = arch.header.sizeofcmds;
  if (!fitsIn(image.size(), arch.headerSize, sizeofcmds)) {
    error = malformed("load commands extend past the end of the file");
    return false;
  }
  arch.commands.clear();
  arch.symtabAt.reset();
  arch.dysymtabAt.reset();
  std::size_t offset = 0;
  std::uint32_t sectionIndex = 0;
  for (std::uint32_t i = 0; i < arch.header.ncmds; ++i) {
    std::string which = "load command " + std::to_string(i);
    if (sizeofcmds - offset < sizeof(load_command)) {
      error = malformed(which + " extends past the end of all load commands");
      return false;
    }
    std::size_t at = arch.headerSize + offset;
    auto command = loadStruct<load_command>(image.data() + at, arch.byteSex);
    if (command.cmdsize < sizeof(load_command) || command.cmdsize % 4 != 0) {
      error = malformed(which + " size not a multiple of 4 or too small");
      return false;
    }
    if (command.cmdsize > sizeofcmds - offset) {
      error = malformed(which + " extends past the end of all load commands");
      return false;
    }
    auto needs = [&](std::size_t size) {
      if (command.cmdsize >= size) return true;
      error = malformed(which + " too small for its kind");
      return false;
    };
    switch (command.cmd) {
      case LC_SEGMENT:
      case LC_SEGMENT_64:
        if ((command.cmd == LC_SEGMENT_64) != arch.is64) {
          error = malformed(which + " is a segment of the wrong width");
          return false;
        }
        if (!checkSegment(image, arch, at, command.cmdsize, sectionIndex, error)) return false;
        break;
      case LC_SYMTAB: {
        if (!needs(sizeof(symtab_command))) return false;
        if (arch.symtabAt) {
          error = malformed("more than one LC_SYMTAB command");
          return false;
        }
        arch.symtabAt = at;
        arch.symtab = loadStruct<symtab_command>(image.data() + at, arch.byteSex);
        std::size_t symbolSize = arch.is64 ? sizeof(nlist_64) : sizeof(nlist);
        if (!fitsIn(image.size(), arch.symtab.symoff, arch.symtab.nsyms, symbolSize)) {
          error = malformed("symbol table extends past the end of the file");
          return false;
        }
        if (!fitsIn(image.size(), arch.symtab.stroff, arch.symtab.strsize)) {
          error = malformed("string table extends past the end of the file");
          return false;
        }
        break;
      }
      case LC_DYSYMTAB:
        if (!needs(sizeof(dysymtab_command))) return false;
        if (arch.dysymtabAt) {
          error = malformed("more than one LC_DYSYMTAB command");
          return false;
        }
        arch.dysymtabAt = at;
        arch.dysymtab = loadStruct<dysymtab_command>(image.data() + at, arch.byteSex);
        break;
      case LC_LOAD_DYLIB:
      case LC_LOAD_WEAK_DYLIB:
      case LC_REEXPORT_DYLIB:
      case LC_ID_DYLIB: {
        if (!needs(sizeof(dylib_command))) return false;
        auto dylib = loadStruct<dylib_command>(image.data() + at, arch.byteSex);
        if (dylib.name < sizeof(dylib_command) || dylib.name >= command.cmdsize) {
          error = malformed(which + " name offset extends past the end of the command");
          return false;
        }
        break;
      }
      case LC_PREBIND_CKSUM:
        if (!needs(sizeof(prebind_cksum_command))) return false;
        break;
      case LC_ROUTINES:
        if (!needs(sizeof(routines_command))) return false;
        break;
      case LC_ROUTINES_64:
        if (!needs(sizeof(routines_command_64))) return false;
        break;
      case LC_TWOLEVEL_HINTS: {
        if (!needs(sizeof(twolevel_hints_command))) return false;
        auto hints = loadStruct<twolevel_hints_command>(image.data() + at, arch.byteSex);
        if (!fitsIn(image.size(), hints.offset, hints.nhints, 4)) {
          error = malformed("two-level hints extend past the end of the file");
          return false;
        }
        break;
      }
      default:
        break;
    }
    arch.commands.push_back(at);
    offset += command.cmdsize;
  }
  if (arch.dysymtabAt && !checkDysymtab(image, arch, error)) return false;
  return true;
}

bool breakout(OFile& ofile, std::string& error) {
  ofile.archs.clear();
  std::span<const std::uint8_t> bytes(ofile.bytes);
  if (bytes.size() >= 8 && load32(bytes.data(), ByteSex::Big) == FAT_MAGIC) {
    ofile.kind = FileKind::Fat;
    auto header = loadStruct<fat_header>(bytes.data(), ByteSex::Big);
    if (!fitsIn(bytes.size(), sizeof(fat_header), header.nfat_arch, sizeof(fat_arch))) {
      error =
          "truncated or malformed fat file (fat_arch structs would extend past the end of "
          "the file)";
      return false;
    }
    ofile.fatArchCount = header.nfat_arch;
    std::vector<fat_arch> archs(header.nfat_arch);
    for (std::uint32_t i = 0; i < header.nfat_arch; ++i) {
      archs[i] = loadStruct<fat_arch>(bytes.data() + sizeof(fat_header) + i * sizeof(fat_arch),
                                      ByteSex::Big);
      const fat_arch& slice = archs[i];
      std::size_t headersEnd =
          sizeof(fat_header) + std::size_t(header.nfat_arch) * sizeof(fat_arch);
      if (slice.offset < headersEnd || !fitsIn(bytes.size(), slice.offset, slice.size)) {
        error = "truncated or malformed fat file (offset plus size of cputype (" +
                std::to_string(std::int32_t(slice.cputype)) + ") cpusubtype (" +
                std::to_string(std::int32_t(slice.cpusubtype)) +
                ") extends past the end of the file)";
        return false;
      }
      for (std::uint32_t j = 0; j < i; ++j) {
        bool overlaps = slice.offset < std::uint64_t(archs[j].offset) + archs[j].size &&
                        archs[j].offset < std::uint64_t(slice.offset) + slice.size;
        bool sameProcessor =
            archs[j].cputype == slice.cputype && archs[j].cpusubtype == slice.cpusubtype;
        if (overlaps || sameProcessor) {
          error = "truncated or malformed fat file (slices " + std::to_string(j) + " and " +
                  std::to_string(i) + (overlaps ? " overlap)" : " are for the same processor)");
          return false;
        }
      }
      auto image = bytes.subspan(slice.offset, slice.size);
      if (isArchive(image)) {
        if (!checkArchive(ofile, slice.offset, slice.size, error)) return false;
        continue;
      }
      ArchRecord arch;
      arch.offset = slice.offset;
      arch.size = slice.size;
      if (!check_Mach_O(image, arch, error)) return false;
      if (std::int32_t(arch.header.cputype) != std::int32_t(slice.cputype)) {
        error = "truncated or malformed fat file (cputype of slice " + std::to_string(i) +
                " does not match its Mach-O header)";
        return false;
      }
      ofile.archs.push_back(std::move(arch));
    }
    return true;
  }
  if (isArchive(bytes)) {
    ofile.kind = FileKind::Archive;
    return checkArchive(ofile, 0, bytes.size(), error);
  }
  if (hasMachOMagic(bytes)) {
    ofile.kind = FileKind::Thin;
    ArchRecord arch;
    arch.offset = 0;
    arch.size = bytes.size();
    if (!check_Mach_O(bytes, arch, error)) return false;
    ofile.archs.push_back(std::move(arch));
    return true;
  }
  ofile.kind = FileKind::Unknown;
  error = "not a Mach-O, fat or archive file";
  return false;
}

}  // namespace gw::macho
