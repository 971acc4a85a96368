#include "support/macho_writer.h"

#include <cstring>

namespace gwtest::macho {
namespace {

// Published constants, written out here on their own.
constexpr std::uint32_t kLoadDylib = 0xC, kIdDylib = 0xD, kLoadDylinker = 0xE;
constexpr std::uint32_t kLoadWeakDylib = 0x80000018, kPrebindCksum = 0x17, kUuid = 0x1B;
constexpr std::uint32_t kSymtab = 0x2, kDysymtab = 0xB;
constexpr std::uint32_t kFlagsCanonical = 0x4 | 0x80 | 0x800 | 0x4000;  // dyld, 2-level, ...
constexpr std::uint32_t kPrebound = 0x10, kAllModsBound = 0x1000;
constexpr std::uint32_t kLocal = 0x80000000, kAbsolute = 0x40000000;
constexpr std::uint8_t kExt = 0x1, kSect = 0xE, kUndf = 0x0, kPbud = 0xC, kFun = 0x24;

class Image {
 public:
  Image(const ImageOptions& options, const std::optional<Prebinding>& prebinding)
      : o_(options), p_(prebinding), ptr_(options.is64 ? 8 : 4) {}

  Bytes write() {
    // Addresses: a library is linked at 0 and prebound at its base; executables sit at 0x1000.
    base_ = o_.dylib ? (p_ ? p_->base : 0) : 0;
    text_ = base_ + (o_.dylib ? 0 : 0x1000);
    data_ = text_ + 0x1000;
    linkedit_ = data_ + 0x1000;
    relocBase_ = o_.dylib ? text_ : 0;  // the first segment's address
    layOutLinkedit();
    bytes_.assign(0x2000 + linkeditSize_, 0);
    writeCommands();
    writeContents();
    writeLinkedit();
    return bytes_;
  }

 private:
  // --- primitive writes in the image's byte order ---
  void u32(std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
      bytes_[at + (o_.bigEndian ? i : 3 - i)] = std::uint8_t(v >> (24 - 8 * i));
    }
  }
  void u16(std::size_t at, std::uint16_t v) {
    bytes_[at + (o_.bigEndian ? 0 : 1)] = std::uint8_t(v >> 8);
    bytes_[at + (o_.bigEndian ? 1 : 0)] = std::uint8_t(v);
  }
  void u64(std::size_t at, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) {
      bytes_[at + (o_.bigEndian ? i : 7 - i)] = std::uint8_t(v >> (56 - 8 * i));
    }
  }
  void ptr(std::size_t at, std::uint64_t v) { o_.is64 ? u64(at, v) : u32(at, std::uint32_t(v)); }
  void text(std::size_t at, const char* s) { std::memcpy(&bytes_[at], s, std::strlen(s)); }

  std::uint32_t cpuType() const { return std::uint32_t(cpuTypeFor(o_)); }
  bool ppc() const { return o_.bigEndian; }
  std::uint32_t bound(int symbol) const { return p_ ? p_->bound[symbol] : 0; }

  // --- load commands ---
  std::size_t segment(std::size_t at, const char* name, std::uint64_t vmaddr, std::uint64_t fileoff,
                      std::uint64_t filesize, std::uint32_t prot, std::uint32_t nsects) {
    std::size_t size = (o_.is64 ? 72 : 56) + nsects * (o_.is64 ? 80 : 68);
    u32(at, o_.is64 ? 0x19 : 0x1);
    u32(at + 4, std::uint32_t(size));
    text(at + 8, name);
    if (o_.is64) {
      u64(at + 24, vmaddr), u64(at + 32, 0x1000), u64(at + 40, fileoff), u64(at + 48, filesize);
      u32(at + 56, 7), u32(at + 60, prot), u32(at + 64, nsects);
    } else {
      u32(at + 24, std::uint32_t(vmaddr)), u32(at + 28, 0x1000);
      u32(at + 32, std::uint32_t(fileoff)), u32(at + 36, std::uint32_t(filesize));
      u32(at + 40, 7), u32(at + 44, prot), u32(at + 48, nsects);
    }
    return at + (o_.is64 ? 72 : 56);
  }
  std::size_t sectionEntry(std::size_t at, const char* sect, const char* seg, std::uint64_t addr,
                           std::uint64_t size, std::uint32_t offset, std::uint32_t flags,
                           std::uint32_t reserved1) {
    text(at, sect);
    text(at + 16, seg);
    if (o_.is64) {
      u64(at + 32, addr), u64(at + 40, size), u32(at + 48, offset), u32(at + 52, 3);
      u32(at + 64, flags), u32(at + 68, reserved1);
      return at + 80;
    }
    u32(at + 32, std::uint32_t(addr)), u32(at + 36, std::uint32_t(size)), u32(at + 40, offset);
    u32(at + 44, 2), u32(at + 56, flags), u32(at + 60, reserved1);
    return at + 68;
  }
  std::size_t dylib(std::size_t at, std::uint32_t cmd, const char* name, std::uint32_t timestamp,
                    std::uint32_t current, std::uint32_t compatibility) {
    std::size_t size = (24 + std::strlen(name) + 1 + 7) & ~std::size_t(7);
    u32(at, cmd), u32(at + 4, std::uint32_t(size)), u32(at + 8, 24);
    u32(at + 12, timestamp), u32(at + 16, current), u32(at + 20, compatibility);
    text(at + 24, name);
    return at + size;
  }

  void writeCommands() {
    std::size_t header = o_.is64 ? 32 : 28;
    std::size_t at = header;
    std::uint32_t ncmds = 0;
    if (!o_.dylib) {
      at = segment(at, "__PAGEZERO", 0, 0, 0, 0, 0), ++ncmds;
    }
    at = segment(at, "__TEXT", text_, 0, 0x1000, 5, 1), ++ncmds;
    at = sectionEntry(at, "__text", "__TEXT", text_ + 0x800, 0x100, 0x800, 0x80000400, 0);
    at = segment(at, "__DATA", data_, 0x1000, 0x1000, 3, 3), ++ncmds;
    at = sectionEntry(at, "__data", "__DATA", data_, 0x30, 0x1000, 0, 0);
    at = sectionEntry(at, "__nl_symbol_ptr", "__DATA", data_ + 0x40, 3 * ptr_, 0x1040, 0x6, 0);
    at = sectionEntry(at, "__la_symbol_ptr", "__DATA", data_ + 0x80, 2 * ptr_, 0x1080, 0x7, 3);
    at = segment(at, "__LINKEDIT", linkedit_, 0x2000, linkeditSize_, 1, 0), ++ncmds;
    bool stamped = p_.has_value();
    if (o_.dylib) {
      at = dylib(at, kIdDylib, "/usr/lib/libfixture.B.dylib", stamped ? p_->idTimestamp : 0,
                 0x00020300, 0x00010000),
      ++ncmds;
    } else {
      const char* dyld = "/usr/lib/dyld";
      u32(at, kLoadDylinker), u32(at + 4, 28), u32(at + 8, 12), text(at + 12, dyld);
      at += 28, ++ncmds;
    }
    at = dylib(at, kLoadDylib, "/usr/lib/libSystem.B.dylib", stamped ? p_->libraryTimestamps[0] : 0,
               stamped ? p_->currentVersion : 0, stamped ? p_->compatibilityVersion : 0),
    ++ncmds;
    at = dylib(at, kLoadWeakDylib, "/usr/local/lib/libother.dylib",
               stamped ? p_->libraryTimestamps[1] : 0, stamped ? p_->currentVersion : 0,
               stamped ? p_->compatibilityVersion : 0),
    ++ncmds;
    u32(at, kPrebindCksum), u32(at + 4, 12), u32(at + 8, stamped ? p_->checksum : 0);
    at += 12, ++ncmds;
    u32(at, kUuid), u32(at + 4, 24);
    for (int i = 0; i < 16; ++i) bytes_[at + 8 + i] = std::uint8_t(0xA0 + i);
    at += 24, ++ncmds;
    u32(at, kSymtab), u32(at + 4, 24), u32(at + 8, symoff_), u32(at + 12, kSymbols);
    u32(at + 16, stroff_), u32(at + 20, strsize_);
    at += 24, ++ncmds;
    std::uint32_t dysymtab[20] = {
        kDysymtab, 80,           0, 2,          2, 2,          4, 4, 0, 0, 0, 0, 0,
        0,         indirectoff_, 5, extreloff_, 2, locreloff_, 4};
    for (int i = 0; i < 20; ++i) u32(at + 4 * i, dysymtab[i]);
    at += 80, ++ncmds;

    std::uint32_t flags = kFlagsCanonical;
    if (p_) flags = (flags & ~(0x4000u | 0x800u)) | kPrebound | (o_.dylib ? 0 : kAllModsBound);
    u32(0, o_.is64 ? 0xFEEDFACF : 0xFEEDFACE);
    u32(4, cpuType()), u32(8, o_.bigEndian ? 0 : 3), u32(12, o_.dylib ? 6 : 2);
    u32(16, ncmds), u32(20, std::uint32_t(at - header)), u32(24, flags);
  }

  // --- section contents ---
  void writeContents() {
    for (int i = 0; i < 0x100; ++i) bytes_[0x800 + i] = std::uint8_t(i * 7 + 1);  // "code"
    bool prebound = p_.has_value();
    // __data: two locally relocated pointers, then two covered by external relocations.
    ptr(0x1000, text_ + 0x820);
    ptr(0x1000 + ptr_, data_ + 0x28);
    ptr(0x1000 + 2 * ptr_, 4 + std::uint64_t(bound(3)));  // _other + 4
    ptr(0x1000 + 3 * ptr_, data_ + 0x28);                 // _data_var
    u32(0x1028, 0xDA7A0001);
    // Non-lazy pointers: _malloc, a local pointer, an absolute value.
    ptr(0x1040, prebound ? bound(0) : 0);
    ptr(0x1040 + ptr_, data_ + 0x28);
    ptr(0x1040 + 2 * ptr_, 0x1234);
    // Lazy pointers: the stub helpers until bound.
    ptr(0x1080, prebound ? bound(1) : text_ + 0x880);
    ptr(0x1080 + ptr_, prebound ? bound(2) : text_ + 0x890);
  }

  // --- __LINKEDIT: relocations, symbols, indirect symbols, strings ---
  static constexpr std::uint32_t kSymbols = 8;
  void layOutLinkedit() {
    locreloff_ = 0x2000;
    extreloff_ = locreloff_ + 4 * 8;
    symoff_ = extreloff_ + 2 * 8;
    indirectoff_ = symoff_ + kSymbols * (o_.is64 ? 16 : 12);
    stroff_ = indirectoff_ + 5 * 4;
    strings_.assign(1, '\0');
    for (const char* name : {"_stabfun", "_helper", "_fixture_entry", "_data_var", "_malloc",
                             "_printf", "_exit", "_other"}) {
      names_.push_back(std::uint32_t(strings_.size()));
      strings_ += name;
      strings_ += '\0';
    }
    while (strings_.size() % 8) strings_ += '\0';
    strsize_ = std::uint32_t(strings_.size());
    linkeditSize_ = stroff_ + strsize_ - 0x2000;
  }

  void plainRelocation(std::size_t at, std::uint32_t address, std::uint32_t symbolnum,
                       bool external) {
    std::uint32_t length = o_.is64 ? 3 : 2;
    u32(at, address);
    u32(at + 4, o_.bigEndian ? symbolnum << 8 | length << 5 | std::uint32_t(external) << 4
                             : symbolnum | length << 25 | std::uint32_t(external) << 27);
  }
  void scatteredRelocation(std::size_t at, std::uint32_t address, std::uint32_t type,
                           std::uint32_t value) {
    u32(at, 0x80000000u | (o_.is64 ? 3u : 2u) << 28 | type << 24 | address);
    u32(at + 4, value);
  }
  void symbol(std::uint32_t index, std::uint8_t type, std::uint8_t sect, std::uint16_t desc,
              std::uint64_t value) {
    std::size_t at = symoff_ + index * (o_.is64 ? 16 : 12);
    u32(at, names_[index]);
    bytes_[at + 4] = type, bytes_[at + 5] = sect;
    u16(at + 6, desc);
    o_.is64 ? u64(at + 8, value) : u32(at + 8, std::uint32_t(value));
  }

  void writeLinkedit() {
    std::uint32_t lazyType = ppc() ? 9 : 3;
    plainRelocation(locreloff_, data_ - relocBase_, 1, false);
    plainRelocation(locreloff_ + 8, data_ + ptr_ - relocBase_, 2, false);
    scatteredRelocation(locreloff_ + 16, data_ + 0x80 - relocBase_, lazyType, text_ + 0x880);
    scatteredRelocation(locreloff_ + 24, data_ + 0x80 + ptr_ - relocBase_, lazyType, text_ + 0x890);
    plainRelocation(extreloff_, data_ + 2 * ptr_ - relocBase_, 7, true);
    plainRelocation(extreloff_ + 8, data_ + 3 * ptr_ - relocBase_, 3, true);

    bool prebound = p_.has_value();
    std::uint8_t undefined = std::uint8_t((prebound ? kPbud : kUndf) | kExt);
    symbol(0, kFun, 1, 0, text_ + 0x800);
    symbol(1, kSect, 1, 0, text_ + 0x810);
    symbol(2, kSect | kExt, 1, 0, text_ + 0x800);
    symbol(3, kSect | kExt, 2, 0, data_ + 0x28);
    for (std::uint32_t i = 0; i < 4; ++i) {
      symbol(4 + i, undefined, 0, std::uint16_t((i == 3 ? 2 : 1) << 8), bound(int(i)));
    }
    std::uint32_t indirect[5] = {4, kLocal, kAbsolute, 5, 6};
    for (int i = 0; i < 5; ++i) u32(indirectoff_ + 4 * i, indirect[i]);
    std::memcpy(&bytes_[stroff_], strings_.data(), strings_.size());
  }

  ImageOptions o_;
  std::optional<Prebinding> p_;
  std::uint32_t ptr_;
  std::uint32_t base_ = 0, text_ = 0, data_ = 0, linkedit_ = 0, relocBase_ = 0;
  std::uint32_t locreloff_ = 0, extreloff_ = 0, symoff_ = 0, indirectoff_ = 0, stroff_ = 0;
  std::uint32_t strsize_ = 0, linkeditSize_ = 0;
  std::string strings_;
  std::vector<std::uint32_t> names_;
  Bytes bytes_;
};

void putBigEndian32(Bytes& bytes, std::size_t at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[at + i] = std::uint8_t(value >> (24 - 8 * i));
}

void appendText(Bytes& bytes, const std::string& text, std::size_t width) {
  std::string field = text.substr(0, width);
  field.resize(width, ' ');
  bytes.insert(bytes.end(), field.begin(), field.end());
}

void appendMember(Bytes& out, const std::string& name, const Bytes& contents) {
  bool longName = name.size() > 15 || name.find(' ') != std::string::npos;
  std::string stored = name;
  if (longName) {
    stored.resize((name.size() + 4) & ~std::size_t(3), '\0');  // NUL-padded to 4 bytes
  }
  std::size_t size = contents.size() + (longName ? stored.size() : 0);
  appendText(out, longName ? "#1/" + std::to_string(stored.size()) : name, 16);
  appendText(out, "1700000000", 12);
  appendText(out, "501", 6);
  appendText(out, "20", 6);
  appendText(out, "100644", 8);
  appendText(out, std::to_string(size), 10);
  out.push_back('`');
  out.push_back('\n');
  if (longName) out.insert(out.end(), stored.begin(), stored.end());
  out.insert(out.end(), contents.begin(), contents.end());
  if (out.size() % 2) out.push_back('\n');
}

}  // namespace

std::int32_t cpuTypeFor(const ImageOptions& options) {
  std::int32_t type = options.bigEndian ? 18 : 7;  // PowerPC or i386
  return options.is64 ? type | 0x01000000 : type;
}

Bytes writeImage(const ImageOptions& options, const std::optional<Prebinding>& prebinding) {
  return Image(options, prebinding).write();
}

Bytes writeFat(const std::vector<FatSlice>& slices) {
  std::size_t offset = 0x1000;
  Bytes out(8 + 20 * slices.size(), 0);
  putBigEndian32(out, 0, 0xCAFEBABE);
  putBigEndian32(out, 4, std::uint32_t(slices.size()));
  for (std::size_t i = 0; i < slices.size(); ++i) {
    std::size_t at = 8 + 20 * i;
    putBigEndian32(out, at, std::uint32_t(slices[i].cputype));
    putBigEndian32(out, at + 4, std::uint32_t(slices[i].cpusubtype));
    putBigEndian32(out, at + 8, std::uint32_t(offset));
    putBigEndian32(out, at + 12, std::uint32_t(slices[i].bytes.size()));
    putBigEndian32(out, at + 16, 12);
    out.resize(offset, 0);
    out.insert(out.end(), slices[i].bytes.begin(), slices[i].bytes.end());
    offset = (out.size() + 0xFFF) & ~std::size_t(0xFFF);
  }
  return out;
}

Bytes writeArchive(const std::vector<ArchiveMember>& members) {
  const std::string magic = "!<arch>\n";
  Bytes out(magic.begin(), magic.end());
  appendMember(out, "__.SYMDEF SORTED", Bytes(8, 0));
  for (const ArchiveMember& member : members) appendMember(out, member.name, member.bytes);
  return out;
}

}  // namespace gwtest::macho
