#include "identity/prebinding/unprebind_arch.h"

#include <array>
#include <cstdio>
#include <unordered_map>

#include "identity/prebinding/prebinding_state.h"

namespace gw::macho {
namespace {

constexpr std::uint32_t VM_PROT_WRITE = 0x2;
constexpr std::uint32_t MH_SPLIT_SEGS = 0x20;

struct Segment {
  std::uint64_t vmaddr, vmsize, fileoff, filesize;
  std::uint32_t initprot;
};

struct PointerSection {
  char sectname[16], segname[16];
  std::uint64_t addr, size;
  std::uint32_t offset, flags, reserved1;
};

struct Symbol {
  std::uint8_t type;
  std::uint64_t value;
  bool undefined() const {
    std::uint8_t kind = type & N_TYPE;
    return (type & N_STAB) == 0 && (kind == N_UNDF || kind == N_PBUD);
  }
  bool definedInSection() const { return (type & N_STAB) == 0 && (type & N_TYPE) == N_SECT; }
};

// Rewrites one image. Addresses are those of the image as it was read (before the slide), which
// is also what relocation entries are relative to.
class ImageRewriter {
 public:
  ImageRewriter(OFile& ofile, const ArchRecord& arch)
      : ofile_(ofile),
        arch_(arch),
        image_(imageBytes(ofile, arch)),
        sex_(arch.byteSex),
        pointerSize_(arch.is64 ? 8 : 4) {}

  bool run() {
    collectSegments();
    std::uint32_t errorsBefore = statics().errors;
    slide_ = 0;
    if (arch_.header.filetype == MH_DYLIB && !segments_.empty()) {
      slide_ = -std::int64_t(segments_.front().vmaddr);
    }
    statics().dylibSlide = slide_;
    std::uint32_t flags = arch_.header.flags;
    updateLoadCommands();
    readSymbols();
    rebuildSymbolTable();
    if (slide_ != 0) updateLocalRelocations();
    if ((flags & MH_CANONICAL) == 0) updateExternalRelocations();
    updatePointerSections();
    flags = (flags & ~(MH_PREBOUND | MH_ALLMODSBOUND)) | MH_PREBINDABLE | MH_CANONICAL;
    store32(image_.data() + 24, flags, sex_);
    return statics().errors == errorsBefore;
  }

 private:
  const char* archName() const {
    return arch_.archName.empty() ? "unknown" : arch_.archName.c_str();
  }
  std::uint64_t slid(std::uint64_t address) const { return address + std::uint64_t(slide_); }

  void collectSegments() {
    for (std::size_t at : arch_.commands) {
      std::uint32_t cmd = load32(image_.data() + at, sex_);
      if (cmd == LC_SEGMENT) {
        auto s = loadStruct<segment_command>(image_.data() + at, sex_);
        segments_.push_back({s.vmaddr, s.vmsize, s.fileoff, s.filesize, s.initprot});
        for (std::uint32_t i = 0; i < s.nsects; ++i) {
          auto c = loadStruct<section>(image_.data() + at + sizeof s + i * sizeof(section), sex_);
          addPointerSection(c.sectname, c.segname, c.addr, c.size, c.offset, c.flags, c.reserved1);
        }
      } else if (cmd == LC_SEGMENT_64) {
        auto s = loadStruct<segment_command_64>(image_.data() + at, sex_);
        segments_.push_back({s.vmaddr, s.vmsize, s.fileoff, s.filesize, s.initprot});
        for (std::uint32_t i = 0; i < s.nsects; ++i) {
          auto c =
              loadStruct<section_64>(image_.data() + at + sizeof s + i * sizeof(section_64), sex_);
          addPointerSection(c.sectname, c.segname, c.addr, c.size, c.offset, c.flags, c.reserved1);
        }
      }
    }
    relocationBase_ = segments_.empty() ? 0 : segments_.front().vmaddr;
    if (arch_.header.flags & MH_SPLIT_SEGS) {
      for (const Segment& segment : segments_) {
        if (segment.initprot & VM_PROT_WRITE) {
          relocationBase_ = segment.vmaddr;
          break;
        }
      }
    }
  }

  void addPointerSection(const char* sectname, const char* segname, std::uint64_t addr,
                         std::uint64_t size, std::uint32_t offset, std::uint32_t flags,
                         std::uint32_t reserved1) {
    std::uint32_t type = flags & SECTION_TYPE;
    if (type != S_NON_LAZY_SYMBOL_POINTERS && type != S_LAZY_SYMBOL_POINTERS) return;
    PointerSection pointers{};
    std::memcpy(pointers.sectname, sectname, 16);
    std::memcpy(pointers.segname, segname, 16);
    pointers.addr = addr, pointers.size = size, pointers.offset = offset;
    pointers.flags = flags, pointers.reserved1 = reserved1;
    pointerSections_.push_back(pointers);
  }

  // Segment and section addresses, library stamps, the prebinding checksum, initialiser address.
  void updateLoadCommands() {
    for (std::size_t at : arch_.commands) {
      std::uint8_t* command = image_.data() + at;
      switch (load32(command, sex_)) {
        case LC_SEGMENT: {
          if (slide_ == 0) break;
          auto s = loadStruct<segment_command>(command, sex_);
          for (std::uint32_t i = 0; i < s.nsects; ++i) {
            std::uint8_t* sectionAt = command + sizeof s + i * sizeof(section);
            auto c = loadStruct<section>(sectionAt, sex_);
            c.addr = std::uint32_t(slid(c.addr));
            storeStruct(sectionAt, c, sex_);
          }
          s.vmaddr = std::uint32_t(slid(s.vmaddr));
          storeStruct(command, s, sex_);
          break;
        }
        case LC_SEGMENT_64: {
          if (slide_ == 0) break;
          auto s = loadStruct<segment_command_64>(command, sex_);
          for (std::uint32_t i = 0; i < s.nsects; ++i) {
            std::uint8_t* sectionAt = command + sizeof s + i * sizeof(section_64);
            auto c = loadStruct<section_64>(sectionAt, sex_);
            c.addr = slid(c.addr);
            storeStruct(sectionAt, c, sex_);
          }
          s.vmaddr = slid(s.vmaddr);
          storeStruct(command, s, sex_);
          break;
        }
        case LC_LOAD_DYLIB:
        case LC_LOAD_WEAK_DYLIB:
        case LC_REEXPORT_DYLIB: {
          auto dylib = loadStruct<dylib_command>(command, sex_);
          dylib.timestamp = dylib.current_version = dylib.compatibility_version = 0;
          storeStruct(command, dylib, sex_);
          break;
        }
        case LC_ID_DYLIB: {
          auto dylib = loadStruct<dylib_command>(command, sex_);
          dylib.timestamp = 0;
          storeStruct(command, dylib, sex_);
          break;
        }
        case LC_PREBIND_CKSUM: {
          auto cksum = loadStruct<prebind_cksum_command>(command, sex_);
          if (statics().zeroOutPrebindChecksum) {
            cksum.cksum = 0;
          } else if (cksum.cksum == 0) {
            cksum.cksum = imageChecksum(image_);
          }
          storeStruct(command, cksum, sex_);
          break;
        }
        case LC_ROUTINES: {
          auto routines = loadStruct<routines_command>(command, sex_);
          routines.init_address = std::uint32_t(slid(routines.init_address));
          storeStruct(command, routines, sex_);
          break;
        }
        case LC_ROUTINES_64: {
          auto routines = loadStruct<routines_command_64>(command, sex_);
          routines.init_address = slid(routines.init_address);
          storeStruct(command, routines, sex_);
          break;
        }
        default:
          break;
      }
    }
  }

  std::size_t symbolAt(std::uint32_t index) const {
    return arch_.symtab.symoff +
           std::size_t(index) * (arch_.is64 ? sizeof(nlist_64) : sizeof(nlist));
  }

  // The symbol table as it was read: relocations and pointers are undone against these values.
  void readSymbols() {
    if (!arch_.symtabAt) return;
    symbols_.reserve(arch_.symtab.nsyms);
    for (std::uint32_t i = 0; i < arch_.symtab.nsyms; ++i) {
      if (arch_.is64) {
        auto s = loadStruct<nlist_64>(image_.data() + symbolAt(i), sex_);
        symbols_.push_back({s.n_type, s.n_value});
      } else {
        auto s = loadStruct<nlist>(image_.data() + symbolAt(i), sex_);
        symbols_.push_back({s.n_type, s.n_value});
      }
    }
  }

  // Defined symbols move by the slide; bound undefined symbols lose their address and type.
  void rebuildSymbolTable() {
    for (std::uint32_t i = 0; i < symbols_.size(); ++i) {
      Symbol symbol = symbols_[i];
      std::uint8_t sect = image_[symbolAt(i) + 5];
      std::uint64_t value = symbol.value;
      std::uint8_t type = symbol.type;
      if (type & N_STAB) {
        if (sect != NO_SECT) value = slid(value);
      } else if ((type & N_TYPE) == N_SECT) {
        value = slid(value);
      } else if ((type & N_TYPE) == N_PBUD) {
        type = std::uint8_t((type & ~N_TYPE) | N_UNDF);
        value = 0;
      } else if ((type & N_TYPE) == N_UNDF && (type & N_EXT)) {
        value = 0;
      }
      std::uint8_t* at = image_.data() + symbolAt(i);
      at[4] = type;
      if (arch_.is64) {
        store64(at + 8, value, sex_);
      } else {
        store32(at + 8, std::uint32_t(value), sex_);
      }
    }
  }

  // The image offset of `width` bytes at an address (as read), if they lie in the file.
  std::optional<std::size_t> fileOffsetOf(std::uint64_t address, std::size_t width) const {
    for (const Segment& segment : segments_) {
      if (address < segment.vmaddr) continue;
      std::uint64_t into = address - segment.vmaddr;
      if (into > segment.filesize || segment.filesize - into < width) continue;
      std::uint64_t offset = segment.fileoff + into;
      if (fitsIn(image_.size(), offset, width)) return std::size_t(offset);
    }
    return std::nullopt;
  }

  std::uint64_t loadPointer(std::size_t at, std::size_t width) const {
    return width == 8 ? load64(image_.data() + at, sex_) : load32(image_.data() + at, sex_);
  }
  void storePointer(std::size_t at, std::size_t width, std::uint64_t value) {
    if (width == 8) {
      store64(image_.data() + at, value, sex_);
    } else {
      store32(image_.data() + at, std::uint32_t(value), sex_);
    }
  }
  // Adds delta to the 4- or 8-byte value a relocation of this length covers.
  void adjustRelocated(std::uint64_t address, std::uint32_t length, std::int64_t delta) {
    if (length != 2 && length != 3) return;
    std::size_t width = length == 3 ? 8 : 4;
    auto at = fileOffsetOf(address, width);
    if (!at) return;
    storePointer(*at, width, loadPointer(*at, width) + std::uint64_t(delta));
  }

  bool isVanilla(std::uint32_t type) const {
    return type == (arch_.header.cputype == std::uint32_t(CPU_TYPE_POWERPC)
                        ? PPC_RELOC_VANILLA
                        : GENERIC_RELOC_VANILLA);
  }
  bool isLazyPointerEntry(std::uint32_t type) const {
    return type == (arch_.header.cputype == std::uint32_t(CPU_TYPE_POWERPC)
                        ? PPC_RELOC_PB_LA_PTR
                        : GENERIC_RELOC_PB_LA_PTR);
  }

  // Local relocations point into this image, so what they cover moves with it; scattered entries
  // also record the target address, which moves too.
  void updateLocalRelocations() {
    if (!arch_.dysymtabAt) return;
    for (std::uint32_t i = 0; i < arch_.dysymtab.nlocrel; ++i) {
      std::uint8_t* at = image_.data() + arch_.dysymtab.locreloff + i * kRelocationSize;
      relocation_entry entry = decodeRelocation(at, sex_);
      if (entry.external) continue;
      std::uint64_t address = relocationBase_ + std::uint32_t(entry.address);
      if (entry.scattered) {
        entry.value = std::int32_t(std::uint32_t(entry.value) + std::uint32_t(slide_));
        encodeRelocation(at, entry, sex_);
      }
      if (isVanilla(entry.type)) adjustRelocated(address, entry.length, slide_);
    }
  }

  // What an external relocation covers held the bound address of its symbol plus an addend; the
  // canonical image holds the addend alone (plus the image's own address for a symbol it defines).
  void updateExternalRelocations() {
    if (!arch_.dysymtabAt) return;
    for (std::uint32_t i = 0; i < arch_.dysymtab.nextrel; ++i) {
      const std::uint8_t* at = image_.data() + arch_.dysymtab.extreloff + i * kRelocationSize;
      relocation_entry entry = decodeRelocation(at, sex_);
      if (entry.scattered || !entry.external || !isVanilla(entry.type)) continue;
      if (entry.symbolnum >= symbols_.size()) {
        error(
            "mallformed file: %s (for architecture %s) (bad symbol table index %u for external "
            "relocation entry %u)",
            ofile_.name.c_str(), archName(), entry.symbolnum, i);
        continue;
      }
      const Symbol& symbol = symbols_[entry.symbolnum];
      std::uint64_t address = relocationBase_ + std::uint32_t(entry.address);
      if (symbol.undefined()) {
        adjustRelocated(address, entry.length, -std::int64_t(symbol.value));
      } else if (symbol.definedInSection() && slide_ != 0) {
        adjustRelocated(address, entry.length, slide_);
      }
    }
  }

  void updatePointerSections() {
    std::unordered_map<std::uint32_t, std::uint32_t> lazyTargets;  // address -> recorded value
    if (arch_.dysymtabAt) {
      for (std::uint32_t i = 0; i < arch_.dysymtab.nlocrel; ++i) {
        auto entry =
            decodeRelocation(image_.data() + arch_.dysymtab.locreloff + i * kRelocationSize, sex_);
        if (entry.scattered) lazyTargets.emplace(std::uint32_t(entry.address), entry.value);
      }
    }
    for (const PointerSection& pointers : pointerSections_) {
      bool lazy = (pointers.flags & SECTION_TYPE) == S_LAZY_SYMBOL_POINTERS;
      std::uint64_t count = pointers.size / pointerSize_;
      std::uint64_t nindirect = arch_.dysymtabAt ? arch_.dysymtab.nindirectsyms : 0;
      if (pointers.reserved1 > nindirect || count > nindirect - pointers.reserved1) {
        error(
            "mallformed file: %s (for architecture %s) (indirect symbol table entries for "
            "section (%.16s,%.16s) extends past the end of the indirect symbol table)",
            ofile_.name.c_str(), archName(), pointers.segname, pointers.sectname);
        continue;
      }
      for (std::uint64_t j = 0; j < count; ++j) {
        std::uint64_t offset = std::uint64_t(pointers.offset) + j * pointerSize_;
        if (!fitsIn(image_.size(), offset, pointerSize_)) break;
        std::uint32_t index = load32(
            image_.data() + arch_.dysymtab.indirectsymoff + (pointers.reserved1 + j) * 4, sex_);
        if (index & INDIRECT_SYMBOL_ABS) continue;
        if (lazy) {
          std::uint64_t address = pointers.addr + j * pointerSize_;
          auto recorded = lazyTargets.find(std::uint32_t(address - relocationBase_));
          if (recorded == lazyTargets.end()) {
            error(
                "mallformed file: %s (for architecture %s) (no local relocation entry for lazy "
                "symbol pointer %lu)",
                ofile_.name.c_str(), archName(), static_cast<unsigned long>(j));
            continue;
          }
          storePointer(std::size_t(offset), pointerSize_, recorded->second);
          continue;
        }
        if (index & INDIRECT_SYMBOL_LOCAL) {
          storePointer(std::size_t(offset), pointerSize_,
                       slid(loadPointer(std::size_t(offset), pointerSize_)));
          continue;
        }
        if (index >= symbols_.size()) {
          error(
              "mallformed file: %s (for architecture %s) (bad symbol table index %u in "
              "indirect symbol table)",
              ofile_.name.c_str(), archName(), index);
          continue;
        }
        const Symbol& symbol = symbols_[index];
        if (symbol.undefined() && (symbol.type & N_EXT)) {
          storePointer(std::size_t(offset), pointerSize_, 0);
        } else if (symbol.definedInSection()) {
          storePointer(std::size_t(offset), pointerSize_,
                       slid(loadPointer(std::size_t(offset), pointerSize_)));
        }
      }
    }
  }

  OFile& ofile_;
  const ArchRecord& arch_;
  std::span<std::uint8_t> image_;
  ByteSex sex_;
  std::size_t pointerSize_;
  std::int64_t slide_ = 0;
  std::uint64_t relocationBase_ = 0;
  std::vector<Segment> segments_;
  std::vector<PointerSection> pointerSections_;
  std::vector<Symbol> symbols_;
};

}  // namespace

bool archNeedsUnprebinding(const OFile& ofile, const ArchRecord& arch) {
  if (!arch.isMachO) return false;
  std::uint32_t type = arch.header.filetype;
  bool handled =
      type == MH_EXECUTE || type == MH_DYLIB || (type == MH_BUNDLE && statics().unprebinding);
  if (!handled) {
    if (!statics().checkIfNeeded) {
      Mach_O_error(ofile, arch, "file is not a Mach-O executable or dynamic shared library file: ");
    }
    return false;
  }
  if (type == MH_EXECUTE && (arch.header.flags & MH_DYLDLINK) == 0) {
    Mach_O_error(ofile, arch, "file is Mach-O executable that isnot dynamically linked: ");
    return false;
  }
  return (arch.header.flags & MH_PREBOUND) != 0;
}

bool unprebindArch(OFile& ofile, const ArchRecord& arch) {
  ImageRewriter rewriter(ofile, arch);
  bool ok = rewriter.run();
  statics().archProcessed = true;
  if (statics().debug) {
    std::printf("%s: unprebinding file: %s (for architecture %s)\n",
                statics().progname != nullptr ? statics().progname : "unprebind",
                ofile.name.c_str(), arch.archName.c_str());
  }
  return ok;
}

std::uint32_t imageChecksum(std::span<const std::uint8_t> image) {
  static const std::array<std::uint32_t, 256> table = [] {
    std::array<std::uint32_t, 256> t{};
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  std::uint32_t crc = 0xFFFFFFFFu;
  for (std::uint8_t byte : image) crc = table[(crc ^ byte) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

}  // namespace gw::macho
