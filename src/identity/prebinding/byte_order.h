// Byte order of Mach-O structures: the host's order, field-by-field swapping, and reading and
// writing a structure at an offset of an image in the image's own byte order.
//
// Every swapper reverses each multi-byte field named in its structure's kLayout; byte runs such
// as names stay as they are. Relocation entries, two-level hints and dylib references are bit-field
// words and are repacked for the target order (see relocation_entry). Plain functions, no state:
// callable from any thread on memory the caller owns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "identity/prebinding/macho_format.h"

namespace gw::macho {

enum class ByteSex { Unknown, Big, Little };

ByteSex get_host_byte_sex();
inline ByteSex otherByteSex(ByteSex sex) {
  return sex == ByteSex::Big ? ByteSex::Little : ByteSex::Big;
}

// Reverses every integer field of one structure of the given layout, in place.
void swapFields(void* structure, const std::uint8_t* layout);

template <class T>
void swapStruct(T& value) {
  swapFields(&value, T::kLayout);
}
template <class T>
void swapStructs(T* values, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) swapFields(values + i, T::kLayout);
}

std::uint32_t swap32(std::uint32_t value);
std::uint64_t swap64(std::uint64_t value);

// Integer reads and writes in a given byte order; the caller has checked the bounds.
std::uint16_t load16(const std::uint8_t* at, ByteSex sex);
std::uint32_t load32(const std::uint8_t* at, ByteSex sex);
std::uint64_t load64(const std::uint8_t* at, ByteSex sex);
void store32(std::uint8_t* at, std::uint32_t value, ByteSex sex);
void store64(std::uint8_t* at, std::uint64_t value, ByteSex sex);

// A structure read from / written to `at` in byte order `sex`; the caller has checked the bounds.
template <class T>
T loadStruct(const std::uint8_t* at, ByteSex sex) {
  T value;
  std::memcpy(&value, at, sizeof(T));
  if (sex != get_host_byte_sex()) swapStruct(value);
  return value;
}
template <class T>
void storeStruct(std::uint8_t* at, T value, ByteSex sex) {
  if (sex != get_host_byte_sex()) swapStruct(value);
  std::memcpy(at, &value, sizeof(T));
}

// Relocation entries: the two words of an entry taken apart and packed again for a byte order.
relocation_entry decodeRelocation(const std::uint8_t* at, ByteSex sex);
void encodeRelocation(std::uint8_t* at, const relocation_entry& entry, ByteSex sex);

// The named swappers, each on structures in host memory (arrays take a count).
void swap_fat_header(fat_header* header);
void swap_fat_arch(fat_arch* archs, std::uint32_t count);
void swap_mach_header(mach_header* header);
void swap_mach_header_64(mach_header_64* header);
void swap_load_command(load_command* command);
void swap_segment_command(segment_command* command);
void swap_segment_command_64(segment_command_64* command);
void swap_section(section* sections, std::uint32_t count);
void swap_section_64(section_64* sections, std::uint32_t count);
void swap_symtab_command(symtab_command* command);
void swap_dysymtab_command(dysymtab_command* command);
void swap_dylib_command(dylib_command* command);
void swap_prebound_dylib_command(prebound_dylib_command* command);
void swap_prebind_cksum_command(prebind_cksum_command* command);
void swap_uuid_command(uuid_command* command);
void swap_twolevel_hints_command(twolevel_hints_command* command);
void swap_routines_command(routines_command* command);
void swap_routines_command_64(routines_command_64* command);
void swap_nlist(nlist* symbols, std::uint32_t count);
void swap_nlist_64(nlist_64* symbols, std::uint32_t count);
void swap_indirect_symbols(std::uint32_t* symbols, std::uint32_t count);
void swap_dylib_module(dylib_module* modules, std::uint32_t count);
void swap_dylib_table_of_contents(dylib_table_of_contents* entries, std::uint32_t count);
void swap_ranlib(ranlib* entries, std::uint32_t count);
// Raw 8-byte relocation entries stored in order `from`, rewritten for order `to`.
void swap_relocation_info(std::uint8_t* entries, std::uint32_t count, ByteSex from, ByteSex to);
// Two-level hints (isub_image:8, itoc:24) and dylib references (isym:24, flags:8): one packed
// word each, repacked for the target order.
void swap_twolevel_hint(std::uint32_t* hints, std::uint32_t count, ByteSex from, ByteSex to);
void swap_dylib_reference(std::uint32_t* references, std::uint32_t count, ByteSex from, ByteSex to);
// A thread command's states (flavor, count, count 32-bit words each); on 64-bit processors the
// state words are 64-bit registers and are swapped in pairs.
bool swap_thread_states(std::uint8_t* states, std::size_t size, bool registers64, ByteSex from);

// Swaps a whole header and its load commands (in `image`, which starts with the header) from
// byte order `from` to the other order, checking each command's size against sizeofcmds and the
// buffer. Returns false, leaving the image partly swapped, when a size is wrong.
bool swap_object_headers(std::span<std::uint8_t> image, ByteSex from);

}  // namespace gw::macho
