// The binary property-list layout ("bplist00"), shared by the binary reader and writer.
//
// A file is a header, an object area, an offset table and a trailer. All multi-byte numbers are
// big-endian.
//
//   header        "bplist00" (8 bytes)
//   objects       each object starts with a marker byte: a type in the high nibble and a size
//                 or count in the low nibble (table below)
//   offset table  one offset per object, `offsetIntSize` bytes each, in object-number order; an
//                 offset is the position of the object's marker byte from the start of the file
//   trailer       32 bytes:
//                   5 bytes   unused (zero)
//                   1 byte    sort version (zero)
//                   1 byte    offsetIntSize  width of an offset table entry (1..8)
//                   1 byte    objectRefSize  width of an object reference (1..8)
//                   8 bytes   objectCount    number of objects, and of offset table entries
//                   8 bytes   topObject      object number of the root value
//                   8 bytes   offsetTableOffset  position of the offset table
//
// Objects refer to one another by object number (an index into the offset table), written in
// `objectRefSize` bytes.
//
//   marker     object
//   0000 0000  null
//   0000 1000  false
//   0000 1001  true
//   0000 1111  fill byte (no value; read as null)
//   0001 nnnn  integer of 2^nnnn bytes: 1, 2 and 4 bytes are unsigned, 8 bytes are signed,
//              16 bytes carry values above INT64_MAX (the high 8 bytes are zero)
//   0010 nnnn  real of 2^nnnn bytes: 4 (float) or 8 (double)
//   0011 0011  date: 8-byte double, seconds since 2001-01-01 00:00:00 UTC
//   0100 nnnn  data: nnnn bytes follow
//   0101 nnnn  ASCII string: nnnn bytes follow
//   0110 nnnn  UTF-16BE string: nnnn 16-bit code units follow
//   1000 nnnn  UID: nnnn+1 bytes, unsigned
//   1010 nnnn  array: nnnn object references
//   1100 nnnn  set: nnnn object references (read as an array; never written)
//   1101 nnnn  dictionary: nnnn key references, then nnnn value references; keys are strings
//
// A count nibble of 1111 means the count follows as an integer object (marker 0001 nnnn, then
// its bytes).
#pragma once

#include <cstddef>
#include <cstdint>

namespace gw::plist::binary {

inline constexpr char kMagic[] = "bplist00";
inline constexpr std::size_t kHeaderSize = 8;
inline constexpr std::size_t kTrailerSize = 32;

// Trailer field positions, from the start of the trailer.
inline constexpr std::size_t kTrailerSortVersion = 5;
inline constexpr std::size_t kTrailerOffsetIntSize = 6;
inline constexpr std::size_t kTrailerObjectRefSize = 7;
inline constexpr std::size_t kTrailerObjectCount = 8;
inline constexpr std::size_t kTrailerTopObject = 16;
inline constexpr std::size_t kTrailerOffsetTableOffset = 24;

// Whole marker bytes.
inline constexpr std::uint8_t kNull = 0x00;
inline constexpr std::uint8_t kFalse = 0x08;
inline constexpr std::uint8_t kTrue = 0x09;
inline constexpr std::uint8_t kFill = 0x0F;
inline constexpr std::uint8_t kDate = 0x33;

// High nibbles.
inline constexpr std::uint8_t kSimple = 0x00;
inline constexpr std::uint8_t kInteger = 0x10;
inline constexpr std::uint8_t kReal = 0x20;
inline constexpr std::uint8_t kDateType = 0x30;
inline constexpr std::uint8_t kData = 0x40;
inline constexpr std::uint8_t kASCIIString = 0x50;
inline constexpr std::uint8_t kUTF16String = 0x60;
inline constexpr std::uint8_t kUID = 0x80;
inline constexpr std::uint8_t kArray = 0xA0;
inline constexpr std::uint8_t kSet = 0xC0;
inline constexpr std::uint8_t kDictionary = 0xD0;

// A low nibble of this value says the count follows as an integer object.
inline constexpr std::uint8_t kExtendedCount = 0x0F;

// The smallest of 1, 2, 4 or 8 bytes that holds n. The writer sizes object references by the
// object count and offsets by the offset table's position (both one past the largest number
// written, as other writers of the format do), and UIDs by their value.
constexpr unsigned widthFor(std::uint64_t n) {
  if (n < (std::uint64_t(1) << 8)) return 1;
  if (n < (std::uint64_t(1) << 16)) return 2;
  if (n < (std::uint64_t(1) << 32)) return 4;
  return 8;
}

// Big-endian unsigned number of `width` (1..8) bytes at p.
inline std::uint64_t readBigEndian(const std::uint8_t* p, unsigned width) {
  std::uint64_t v = 0;
  for (unsigned i = 0; i < width; ++i) v = (v << 8) | p[i];
  return v;
}

// Writes the low `width` (1..8) bytes of v at p, big-endian.
inline void writeBigEndian(std::uint8_t* p, std::uint64_t v, unsigned width) {
  for (unsigned i = width; i-- > 0;) {
    p[i] = std::uint8_t(v);
    v >>= 8;
  }
}

}  // namespace gw::plist::binary
