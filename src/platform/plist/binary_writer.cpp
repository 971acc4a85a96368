// Writes a Value as a binary property list (layout in binary_format.h).
//
// Two passes. The first flattens the value into a table of objects, numbering them in pre-order
// (a dictionary's keys, then its values), and uniques them as it goes: each distinct string,
// number, date and data by type and content, each array and dictionary by identity, so a
// container shared in memory is written once. The second pass writes the objects in number
// order, then the offset table and the trailer, with reference and offset widths chosen from the
// object count and the offset table's position. Both passes are linear; the unique table is an
// open-addressing hash table over the object list, so flattening makes no allocation per object.
#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <limits>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/plist/binary_format.h"
#include "platform/plist/codec.h"
#include "platform/plist/shared_walk.h"

namespace gw::plist {
namespace {

using namespace binary;

// What an object is, for uniquing and for writing.
enum class Tag : std::uint8_t {
  Null,  // never in a valid property list; written as the null marker all the same
  False,
  True,
  Integer,      // bits: two's complement int64
  BigUnsigned,  // bits: a value above INT64_MAX
  Real,         // bits: the double's bit pattern, so 0.0 and -0.0 stay distinct
  Date,
  String,      // ptr: UTF-8 bytes, bits: their length
  Data,        // ptr: the bytes, bits: their length
  UID,         // bits: the value
  Array,       // ptr: the Array, bits: position of its references in refs_
  Dictionary,  // ptr: the Dictionary, bits: position of its references in refs_
};

// 24 bytes: the object table of a large document is walked twice and should stay small.
struct Object {
  const void* ptr = nullptr;
  std::uint64_t bits = 0;
  Tag tag = Tag::Null;

  bool hasBytes() const { return tag == Tag::String || tag == Tag::Data; }
  bool isContainer() const { return tag == Tag::Array || tag == Tag::Dictionary; }
  std::string_view bytes() const { return {static_cast<const char*>(ptr), std::size_t(bits)}; }
};

std::uint64_t mix(std::uint64_t x) {  // splitmix64's finaliser
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

std::uint64_t hashOf(const Object& o) {
  std::uint64_t h = o.hasBytes()      ? std::hash<std::string_view>{}(o.bytes())
                    : o.isContainer() ? mix(reinterpret_cast<std::uintptr_t>(o.ptr))
                                      : mix(o.bits);
  return h ^ (std::uint64_t(o.tag) * 0x9e3779b97f4a7c15ULL);
}

// Leaves are the same by content, containers by identity.
bool sameObject(const Object& a, const Object& b) {
  if (a.tag != b.tag) return false;
  if (a.hasBytes()) return a.bytes() == b.bytes();
  if (a.isContainer()) return a.ptr == b.ptr;
  return a.bits == b.bits;
}

bool isASCII(std::string_view s) {
  for (char c : s) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

// The next code point of UTF-8 text; U+FFFD (consuming one byte) for a malformed sequence, so
// that text which is not UTF-8 still writes a readable string.
std::uint32_t nextCodePoint(const unsigned char*& p, const unsigned char* end) {
  std::uint32_t c = *p;
  if (c < 0x80) {
    ++p;
    return c;
  }
  unsigned length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 0;
  if (length == 0 || c > 0xF4 || end - p < std::ptrdiff_t(length)) {
    ++p;
    return 0xFFFD;
  }
  c &= 0x3F >> (length - 1);
  for (unsigned i = 1; i < length; ++i) {
    if ((p[i] & 0xC0) != 0x80) {
      ++p;
      return 0xFFFD;
    }
    c = (c << 6) | (p[i] & 0x3F);
  }
  static constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (c < kSmallest[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
    ++p;
    return 0xFFFD;
  }
  p += length;
  return c;
}

class BinaryWriter {
 public:
  explicit BinaryWriter(std::string& out) : out_(out) {}
  BinaryWriter(const BinaryWriter&) = delete;
  BinaryWriter& operator=(const BinaryWriter&) = delete;

  void write(const Value& top) {
    // Sizing the tables once from a count of the tree's nodes (an upper bound on the objects)
    // costs one quick walk and saves repeated rehashing and copying of large tables.
    std::size_t nodes = 0;
    std::size_t references = 0;
    countNodes(top, nodes, references);
    std::unordered_set<const void*>().swap(counted_);
    objects_.reserve(nodes);
    refs_.reserve(references);
    slots_.assign(std::bit_ceil(std::max<std::size_t>(2 * nodes, 64)), Slot{});
    flatten(top);
    // The unique table has done its work: give its memory back before the output grows.
    std::vector<Slot>().swap(slots_);
    refSize_ = widthFor(objects_.size());

    const std::size_t start = out_.size();
    out_.reserve(start + kHeaderSize + objects_.size() * 10 + refs_.size() * refSize_ +
                 payloadBytes_ + kTrailerSize);
    out_.append(kMagic, kHeaderSize);
    // A written object's entry is not needed again: it keeps the object's offset instead.
    for (Object& o : objects_) {
      const std::uint64_t offset = out_.size() - start;
      writeObject(o);
      o.bits = offset;
    }

    const std::uint64_t offsetTable = out_.size() - start;
    const unsigned offsetSize = widthFor(offsetTable);
    std::uint8_t* p = grow(objects_.size() * offsetSize + kTrailerSize);
    for (const Object& o : objects_) {
      writeBigEndian(p, o.bits, offsetSize);
      p += offsetSize;
    }
    std::memset(p, 0, kTrailerSize);
    p[kTrailerOffsetIntSize] = std::uint8_t(offsetSize);
    p[kTrailerObjectRefSize] = std::uint8_t(refSize_);
    writeBigEndian(p + kTrailerObjectCount, objects_.size(), 8);
    writeBigEndian(p + kTrailerTopObject, 0, 8);
    writeBigEndian(p + kTrailerOffsetTableOffset, offsetTable, 8);
  }

 private:
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t index = kEmpty;
  };
  static constexpr std::uint32_t kEmpty = std::numeric_limits<std::uint32_t>::max();

  static Object objectFor(const Value& v) {
    Object o;
    switch (v.type()) {
      case Type::Boolean:
        o.tag = v.boolean() ? Tag::True : Tag::False;
        break;
      case Type::Integer: {
        Integer n = v.integer();
        o.tag = n.isBigUnsigned() ? Tag::BigUnsigned : Tag::Integer;
        o.bits = n.uint64();
        break;
      }
      case Type::Real:
        o.tag = Tag::Real;
        o.bits = std::bit_cast<std::uint64_t>(v.real());
        break;
      case Type::Date:
        o.tag = Tag::Date;
        o.bits = std::bit_cast<std::uint64_t>(v.date().secondsSinceReferenceDate);
        break;
      case Type::String:
        o.tag = Tag::String;
        o.ptr = v.string().data();
        o.bits = v.string().size();
        break;
      case Type::Data:
        o.tag = Tag::Data;
        o.ptr = v.data().data();
        o.bits = v.data().size();
        break;
      case Type::UID:
        o.tag = Tag::UID;
        o.bits = v.uid().value;
        break;
      case Type::Array:
        o.tag = Tag::Array;
        o.ptr = v.array().get();
        break;
      case Type::Dictionary:
        o.tag = Tag::Dictionary;
        o.ptr = v.dictionary().get();
        break;
      default:
        break;
    }
    return o;
  }

  // Counts each shared container once, as flatten() writes it once.
  void countNodes(const Value& v, std::size_t& nodes, std::size_t& references) {
    ++nodes;
    if (const void* shared = walk::sharedContainer(v); shared && !counted_.insert(shared).second) {
      return;
    }
    if (const Array* array = v.ifArray()) {
      references += array->size();
      for (const Value& item : *array) countNodes(item, nodes, references);
    } else if (const Dictionary* dictionary = v.ifDictionary()) {
      references += 2 * dictionary->size();
      nodes += dictionary->size();
      for (const auto& entry : *dictionary) countNodes(entry.second, nodes, references);
    }
  }

  static bool isOnlyReference(const Value& v) {
    if (v.isArray()) return v.array().use_count() == 1;
    if (v.isDictionary()) return v.dictionary().use_count() == 1;
    return false;
  }

  // The object number of o, adding it when it is new (then *added is set).
  std::uint32_t intern(const Object& o, bool* added) {
    if ((interned_ + 1) * 2 > slots_.size()) rehash(slots_.size() * 2);
    const std::uint64_t wide = hashOf(o);
    const std::uint32_t h = std::uint32_t(wide ^ (wide >> 32));
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t i = h & mask;; i = (i + 1) & mask) {
      Slot& slot = slots_[i];
      if (slot.index == kEmpty) {
        slot = Slot{h, append(o)};
        ++interned_;
        *added = true;
        return slot.index;
      }
      if (slot.hash == h && sameObject(objects_[slot.index], o)) {
        *added = false;
        return slot.index;
      }
    }
  }

  void rehash(std::size_t capacity) {
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(capacity, Slot{});
    const std::size_t mask = capacity - 1;
    for (const Slot& s : old) {
      if (s.index == kEmpty) continue;
      std::size_t i = s.hash & mask;
      while (slots_[i].index != kEmpty) i = (i + 1) & mask;
      slots_[i] = s;
    }
  }

  std::uint32_t flattenKey(const std::string& key) {
    Object o;
    o.tag = Tag::String;
    o.ptr = key.data();
    o.bits = key.size();
    bool added;
    return intern(o, &added);
  }

  std::uint32_t append(const Object& o) {
    objects_.push_back(o);
    if (o.hasBytes()) payloadBytes_ += o.bits;
    return std::uint32_t(objects_.size() - 1);
  }

  std::uint32_t flatten(const Value& v) {
    const Object o = objectFor(v);
    std::uint32_t index;
    if (isOnlyReference(v)) {
      index = append(o);  // held nowhere else, so it cannot recur: no need to look it up
    } else {
      bool added;
      index = intern(o, &added);
      if (!added) return index;
    }
    if (const Array* array = v.ifArray()) {
      const std::size_t first = refs_.size();
      objects_[index].bits = first;
      refs_.resize(first + array->size());
      for (std::size_t i = 0; i < array->size(); ++i) refs_[first + i] = flatten((*array)[i]);
    } else if (const Dictionary* dictionary = v.ifDictionary()) {
      const std::size_t first = refs_.size();
      const std::size_t count = dictionary->size();
      objects_[index].bits = first;
      refs_.resize(first + 2 * count);
      std::size_t i = first;
      for (const auto& entry : *dictionary) refs_[i++] = flattenKey(entry.first);
      for (const auto& entry : *dictionary) refs_[i++] = flatten(entry.second);
    }
    return index;
  }

  // Appends n bytes to the output and returns where they start.
  std::uint8_t* grow(std::size_t n) {
    const std::size_t at = out_.size();
    out_.resize(at + n);
    return reinterpret_cast<std::uint8_t*>(out_.data() + at);
  }

  void put(std::uint8_t b) { out_.push_back(char(b)); }

  void putBigEndian(std::uint64_t v, unsigned width) { writeBigEndian(grow(width), v, width); }

  // An integer object in the smallest of 1, 2, 4 or 8 bytes (8 bytes for negative values).
  void putInteger(std::uint64_t bits, bool negative) {
    unsigned log2 = negative            ? 3
                    : bits < (1u << 8)  ? 0
                    : bits < (1u << 16) ? 1
                    : bits >> 32        ? 3
                                        : 2;
    put(kInteger | log2);
    putBigEndian(bits, 1u << log2);
  }

  void putMarker(std::uint8_t type, std::uint64_t count) {
    if (count < kExtendedCount) {
      put(type | std::uint8_t(count));
    } else {
      put(type | kExtendedCount);
      putInteger(count, false);
    }
  }

  void putReferences(std::uint64_t first, std::uint64_t count) {
    std::uint8_t* p = grow(count * refSize_);
    for (std::uint64_t i = 0; i < count; ++i, p += refSize_) {
      writeBigEndian(p, refs_[first + i], refSize_);
    }
  }

  void putString(std::string_view s) {
    if (isASCII(s)) {
      putMarker(kASCIIString, s.size());
      out_.append(s);
      return;
    }
    const auto* begin = reinterpret_cast<const unsigned char*>(s.data());
    const auto* end = begin + s.size();
    std::uint64_t units = 0;
    for (const unsigned char* p = begin; p < end;) units += nextCodePoint(p, end) > 0xFFFF ? 2 : 1;
    putMarker(kUTF16String, units);
    std::uint8_t* o = grow(units * 2);
    for (const unsigned char* p = begin; p < end;) {
      std::uint32_t c = nextCodePoint(p, end);
      if (c > 0xFFFF) {
        c -= 0x10000;
        writeBigEndian(o, 0xD800 + (c >> 10), 2);
        c = 0xDC00 + (c & 0x3FF);
        o += 2;
      }
      writeBigEndian(o, c, 2);
      o += 2;
    }
  }

  void writeObject(const Object& o) {
    switch (o.tag) {
      case Tag::Null:
        put(kNull);
        break;
      case Tag::False:
        put(kFalse);
        break;
      case Tag::True:
        put(kTrue);
        break;
      case Tag::Integer:
        putInteger(o.bits, std::int64_t(o.bits) < 0);
        break;
      case Tag::BigUnsigned:
        put(kInteger | 4);
        putBigEndian(0, 8);
        putBigEndian(o.bits, 8);
        break;
      case Tag::Real:
        put(kReal | 3);
        putBigEndian(o.bits, 8);
        break;
      case Tag::Date:
        put(kDate);
        putBigEndian(o.bits, 8);
        break;
      case Tag::String:
        putString(o.bytes());
        break;
      case Tag::Data:
        putMarker(kData, o.bits);
        out_.append(o.bytes());
        break;
      case Tag::UID: {
        const unsigned width = widthFor(o.bits);
        put(kUID | std::uint8_t(width - 1));
        putBigEndian(o.bits, width);
        break;
      }
      case Tag::Array: {
        const auto* array = static_cast<const Array*>(o.ptr);
        putMarker(kArray, array->size());
        putReferences(o.bits, array->size());
        break;
      }
      case Tag::Dictionary: {
        const auto* dictionary = static_cast<const Dictionary*>(o.ptr);
        putMarker(kDictionary, dictionary->size());
        putReferences(o.bits, 2 * dictionary->size());
        break;
      }
    }
  }

  std::string& out_;
  std::unordered_set<const void*> counted_;  // shared containers seen by countNodes
  std::vector<Object> objects_;              // in object-number order
  std::vector<Slot> slots_;                  // open addressing over objects_
  std::vector<std::uint32_t> refs_;
  std::size_t interned_ = 0;  // objects in slots_
  std::size_t payloadBytes_ = 0;
  unsigned refSize_ = 1;
};

}  // namespace

void writeBinaryPropertyList(const Value& value, std::string& out) {
  BinaryWriter(out).write(value);
}

}  // namespace gw::plist
