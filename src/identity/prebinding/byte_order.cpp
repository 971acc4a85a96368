#include "identity/prebinding/byte_order.h"

#include <bit>
#include <initializer_list>
#include <vector>

namespace gw::macho {

ByteSex get_host_byte_sex() {
  return std::endian::native == std::endian::big ? ByteSex::Big : ByteSex::Little;
}

std::uint32_t swap32(std::uint32_t value) { return __builtin_bswap32(value); }
std::uint64_t swap64(std::uint64_t value) { return __builtin_bswap64(value); }

void swapFields(void* structure, const std::uint8_t* layout) {
  auto* at = static_cast<std::uint8_t*>(structure);
  for (; *layout != 0; ++layout) {
    std::size_t width = *layout & ~kByteRun;
    if ((*layout & kByteRun) == 0) {
      for (std::size_t i = 0; i < width / 2; ++i) std::swap(at[i], at[width - 1 - i]);
    }
    at += width;
  }
}

std::uint16_t load16(const std::uint8_t* at, ByteSex sex) {
  return sex == ByteSex::Big ? std::uint16_t(at[0] << 8 | at[1])
                             : std::uint16_t(at[1] << 8 | at[0]);
}
std::uint32_t load32(const std::uint8_t* at, ByteSex sex) {
  std::uint32_t value;
  std::memcpy(&value, at, 4);
  return sex == get_host_byte_sex() ? value : swap32(value);
}
std::uint64_t load64(const std::uint8_t* at, ByteSex sex) {
  std::uint64_t value;
  std::memcpy(&value, at, 8);
  return sex == get_host_byte_sex() ? value : swap64(value);
}
void store32(std::uint8_t* at, std::uint32_t value, ByteSex sex) {
  if (sex != get_host_byte_sex()) value = swap32(value);
  std::memcpy(at, &value, 4);
}
void store64(std::uint8_t* at, std::uint64_t value, ByteSex sex) {
  if (sex != get_host_byte_sex()) value = swap64(value);
  std::memcpy(at, &value, 8);
}

namespace {

// Bit fields of one 32-bit word, widths in declaration order. A big-endian compiler packs the
// first field at the most significant end, a little-endian one at the least significant end.
std::vector<std::uint32_t> unpackWord(std::uint32_t word, std::initializer_list<int> widths,
                                      ByteSex sex) {
  std::vector<std::uint32_t> fields;
  int shift = sex == ByteSex::Big ? 32 : 0;
  for (int width : widths) {
    std::uint32_t mask = width == 32 ? 0xFFFFFFFFu : (1u << width) - 1;
    if (sex == ByteSex::Big) {
      shift -= width;
      fields.push_back((word >> shift) & mask);
    } else {
      fields.push_back((word >> shift) & mask);
      shift += width;
    }
  }
  return fields;
}

std::uint32_t packWord(const std::vector<std::uint32_t>& fields, std::initializer_list<int> widths,
                       ByteSex sex) {
  std::uint32_t word = 0;
  int shift = sex == ByteSex::Big ? 32 : 0;
  std::size_t i = 0;
  for (int width : widths) {
    std::uint32_t mask = width == 32 ? 0xFFFFFFFFu : (1u << width) - 1;
    if (sex == ByteSex::Big) {
      shift -= width;
      word |= (fields[i++] & mask) << shift;
    } else {
      word |= (fields[i++] & mask) << shift;
      shift += width;
    }
  }
  return word;
}

constexpr std::initializer_list<int> kRelocationWord = {24, 1, 2, 1, 4};

void repackWords(std::uint32_t* words, std::uint32_t count, std::initializer_list<int> widths,
                 ByteSex from, ByteSex to) {
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint8_t bytes[4];
    std::memcpy(bytes, words + i, 4);
    std::uint32_t word = load32(bytes, from);
    store32(bytes, packWord(unpackWord(word, widths, from), widths, to), to);
    std::memcpy(words + i, bytes, 4);
  }
}

}  // namespace

relocation_entry decodeRelocation(const std::uint8_t* at, ByteSex sex) {
  relocation_entry entry;
  std::uint32_t first = load32(at, sex);
  std::uint32_t second = load32(at + 4, sex);
  if (first & R_SCATTERED) {
    entry.scattered = true;
    entry.pcrel = (first >> 30) & 1;
    entry.length = (first >> 28) & 3;
    entry.type = (first >> 24) & 0xF;
    entry.address = std::int32_t(first & 0xFFFFFF);
    entry.value = std::int32_t(second);
    return entry;
  }
  entry.address = std::int32_t(first);
  auto fields = unpackWord(second, kRelocationWord, sex);
  entry.symbolnum = fields[0];
  entry.pcrel = fields[1];
  entry.length = fields[2];
  entry.external = fields[3];
  entry.type = fields[4];
  return entry;
}

void encodeRelocation(std::uint8_t* at, const relocation_entry& entry, ByteSex sex) {
  if (entry.scattered) {
    std::uint32_t first = R_SCATTERED | std::uint32_t(entry.pcrel) << 30 |
                          (entry.length & 3) << 28 | (entry.type & 0xF) << 24 |
                          (std::uint32_t(entry.address) & 0xFFFFFF);
    store32(at, first, sex);
    store32(at + 4, std::uint32_t(entry.value), sex);
    return;
  }
  store32(at, std::uint32_t(entry.address), sex);
  store32(at + 4,
          packWord({entry.symbolnum, entry.pcrel, entry.length, entry.external, entry.type},
                   kRelocationWord, sex),
          sex);
}

void swap_fat_header(fat_header* header) { swapStruct(*header); }
void swap_fat_arch(fat_arch* archs, std::uint32_t count) { swapStructs(archs, count); }
void swap_mach_header(mach_header* header) { swapStruct(*header); }
void swap_mach_header_64(mach_header_64* header) { swapStruct(*header); }
void swap_load_command(load_command* command) { swapStruct(*command); }
void swap_segment_command(segment_command* command) { swapStruct(*command); }
void swap_segment_command_64(segment_command_64* command) { swapStruct(*command); }
void swap_section(section* sections, std::uint32_t count) { swapStructs(sections, count); }
void swap_section_64(section_64* sections, std::uint32_t count) { swapStructs(sections, count); }
void swap_symtab_command(symtab_command* command) { swapStruct(*command); }
void swap_dysymtab_command(dysymtab_command* command) { swapStruct(*command); }
void swap_dylib_command(dylib_command* command) { swapStruct(*command); }
void swap_prebound_dylib_command(prebound_dylib_command* command) { swapStruct(*command); }
void swap_prebind_cksum_command(prebind_cksum_command* command) { swapStruct(*command); }
void swap_uuid_command(uuid_command* command) { swapStruct(*command); }
void swap_twolevel_hints_command(twolevel_hints_command* command) { swapStruct(*command); }
void swap_routines_command(routines_command* command) { swapStruct(*command); }
void swap_routines_command_64(routines_command_64* command) { swapStruct(*command); }
void swap_nlist(nlist* symbols, std::uint32_t count) { swapStructs(symbols, count); }
void swap_nlist_64(nlist_64* symbols, std::uint32_t count) { swapStructs(symbols, count); }
void swap_indirect_symbols(std::uint32_t* symbols, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i) symbols[i] = swap32(symbols[i]);
}
void swap_dylib_module(dylib_module* modules, std::uint32_t count) { swapStructs(modules, count); }
void swap_dylib_table_of_contents(dylib_table_of_contents* entries, std::uint32_t count) {
  swapStructs(entries, count);
}
void swap_ranlib(ranlib* entries, std::uint32_t count) { swapStructs(entries, count); }

void swap_relocation_info(std::uint8_t* entries, std::uint32_t count, ByteSex from, ByteSex to) {
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint8_t* at = entries + std::size_t(i) * kRelocationSize;
    encodeRelocation(at, decodeRelocation(at, from), to);
  }
}

void swap_twolevel_hint(std::uint32_t* hints, std::uint32_t count, ByteSex from, ByteSex to) {
  repackWords(hints, count, {8, 24}, from, to);
}

void swap_dylib_reference(std::uint32_t* references, std::uint32_t count, ByteSex from,
                          ByteSex to) {
  repackWords(references, count, {24, 8}, from, to);
}

bool swap_thread_states(std::uint8_t* states, std::size_t size, bool registers64, ByteSex from) {
  ByteSex to = otherByteSex(from);
  std::size_t at = 0;
  while (at < size) {
    if (size - at < 8) return false;
    std::uint32_t count = load32(states + at + 4, from);
    store32(states + at, load32(states + at, from), to);
    store32(states + at + 4, count, to);
    at += 8;
    if (std::uint64_t(count) * 4 > size - at) return false;
    std::size_t step = registers64 && count % 2 == 0 ? 8 : 4;
    for (std::size_t i = 0; i < std::size_t(count) * 4; i += step) {
      if (step == 8) {
        store64(states + at + i, load64(states + at + i, from), to);
      } else {
        store32(states + at + i, load32(states + at + i, from), to);
      }
    }
    at += std::size_t(count) * 4;
  }
  return true;
}

namespace {

// Swaps one structure of type T at `at` (bounds already checked) from `from` to the other order.
template <class T>
void swapAt(std::uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof(T));
  swapStruct(value);
  std::memcpy(at, &value, sizeof(T));
}

}  // namespace

bool swap_object_headers(std::span<std::uint8_t> image, ByteSex from) {
  if (image.size() < sizeof(mach_header)) return false;
  std::uint32_t magic = load32(image.data(), from);
  bool is64 = magic == MH_MAGIC_64;
  if (!is64 && magic != MH_MAGIC) return false;
  std::size_t headerSize = is64 ? sizeof(mach_header_64) : sizeof(mach_header);
  if (image.size() < headerSize) return false;
  mach_header header = loadStruct<mach_header>(image.data(), from);
  if (std::uint64_t(header.sizeofcmds) > image.size() - headerSize) return false;
  if (is64) {
    swapAt<mach_header_64>(image.data());
  } else {
    swapAt<mach_header>(image.data());
  }
  std::uint8_t* commands = image.data() + headerSize;
  std::size_t offset = 0;
  for (std::uint32_t i = 0; i < header.ncmds; ++i) {
    if (header.sizeofcmds - offset < sizeof(load_command)) return false;
    std::uint8_t* at = commands + offset;
    load_command command = loadStruct<load_command>(at, from);
    if (command.cmdsize < sizeof(load_command) || command.cmdsize % 4 != 0 ||
        command.cmdsize > header.sizeofcmds - offset) {
      return false;
    }
    auto fits = [&](std::size_t size) { return command.cmdsize >= size; };
    switch (command.cmd) {
      case LC_SEGMENT: {
        if (!fits(sizeof(segment_command))) return false;
        segment_command segment = loadStruct<segment_command>(at, from);
        if (std::uint64_t(segment.nsects) * sizeof(section) >
            command.cmdsize - sizeof(segment_command)) {
          return false;
        }
        swapAt<segment_command>(at);
        for (std::uint32_t s = 0; s < segment.nsects; ++s) {
          swapAt<section>(at + sizeof(segment_command) + s * sizeof(section));
        }
        break;
      }
      case LC_SEGMENT_64: {
        if (!fits(sizeof(segment_command_64))) return false;
        segment_command_64 segment = loadStruct<segment_command_64>(at, from);
        if (std::uint64_t(segment.nsects) * sizeof(section_64) >
            command.cmdsize - sizeof(segment_command_64)) {
          return false;
        }
        swapAt<segment_command_64>(at);
        for (std::uint32_t s = 0; s < segment.nsects; ++s) {
          swapAt<section_64>(at + sizeof(segment_command_64) + s * sizeof(section_64));
        }
        break;
      }
      case LC_SYMTAB:
        if (!fits(sizeof(symtab_command))) return false;
        swapAt<symtab_command>(at);
        break;
      case LC_DYSYMTAB:
        if (!fits(sizeof(dysymtab_command))) return false;
        swapAt<dysymtab_command>(at);
        break;
      case LC_LOAD_DYLIB:
      case LC_LOAD_WEAK_DYLIB:
      case LC_REEXPORT_DYLIB:
      case LC_ID_DYLIB:
        if (!fits(sizeof(dylib_command))) return false;
        swapAt<dylib_command>(at);
        break;
      case LC_PREBOUND_DYLIB:
        if (!fits(sizeof(prebound_dylib_command))) return false;
        swapAt<prebound_dylib_command>(at);
        break;
      case LC_PREBIND_CKSUM:
        if (!fits(sizeof(prebind_cksum_command))) return false;
        swapAt<prebind_cksum_command>(at);
        break;
      case LC_TWOLEVEL_HINTS:
        if (!fits(sizeof(twolevel_hints_command))) return false;
        swapAt<twolevel_hints_command>(at);
        break;
      case LC_UUID:
        if (!fits(sizeof(uuid_command))) return false;
        swapAt<uuid_command>(at);
        break;
      case LC_ROUTINES:
        if (!fits(sizeof(routines_command))) return false;
        swapAt<routines_command>(at);
        break;
      case LC_ROUTINES_64:
        if (!fits(sizeof(routines_command_64))) return false;
        swapAt<routines_command_64>(at);
        break;
      case LC_UNIXTHREAD:
      case 0x4: /* LC_THREAD */
        if (!swap_thread_states(at + 8, command.cmdsize - 8, is64, from)) return false;
        swapAt<load_command>(at);
        break;
      default:
        // Commands made of a name offset and text (dylinker, sub-framework...) and unknown
        // ones: only the command word and size are known to be integers.
        swapAt<load_command>(at);
        if (command.cmd == LC_LOAD_DYLINKER && fits(12))
          store32(at + 8, load32(at + 8, from), otherByteSex(from));
        break;
    }
    offset += command.cmdsize;
  }
  return true;
}

}  // namespace gw::macho
