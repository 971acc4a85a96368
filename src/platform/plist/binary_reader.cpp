// Reads a binary property list (layout in binary_format.h) into a Value.
//
// Every position is checked against the object area (between the header and the offset table)
// before it is read, every reference against the object count, and counts are compared by
// division so that count * width cannot overflow. Cycles are found by marking the containers on
// the current path. A file can still describe far more values than it has bytes (references to
// the same object from many places, or objects whose offsets alias one another), so the reader
// keeps a budget of the memory it makes, charged before each allocation: a container's element
// slots when its count is known, and the bytes of strings, keys and data. The budget is a small
// multiple of the file size (kBudgetPerByte), enough for the densest honest file (a dictionary of
// one-byte references to shared keys and values costs about 60 bytes of memory per file byte);
// a file that exceeds it is refused instead of exhausting memory.
//
// Sharing: data and (unless mutable containers were asked for) containers referenced from more
// than one place are decoded at most twice and then shared, so the work stays linear without a
// cache entry per object. Strings and numbers are decoded at each reference: copying them out of
// a cache would cost as much as decoding them again.
#include <algorithm>
#include <bit>
#include <cstring>
#include <exception>
#include <unordered_map>
#include <vector>

#include "platform/plist/binary_format.h"
#include "platform/plist/codec.h"

namespace gw::plist {
namespace {

using namespace binary;

class BinaryReader {
 public:
  BinaryReader(std::span<const std::uint8_t> bytes, const ReadOptions& options)
      : data_(bytes.data()), size_(bytes.size()), options_(options) {}
  BinaryReader(const BinaryReader&) = delete;
  BinaryReader& operator=(const BinaryReader&) = delete;

  ReadResult read() {
    ReadResult result;
    result.format = Format::Binary;
    try {
      Value top;
      if (readTrailer() && readObject(topObject_, 0, top)) result.value = std::move(top);
    } catch (const std::exception& e) {  // allocation failure on a huge but well-formed file
      fail(std::string("cannot read binary property list: ") + e.what());
    }
    if (!result.value) result.error = error_;
    return result;
  }

 private:
  // Memory costs charged against the budget, in bytes: a container or data object (the object
  // and its shared handle), an array element, a dictionary entry (a map node with its key and
  // value). Slightly above the real sizes, to cover the allocator's own overhead.
  static constexpr std::uint64_t kObjectCost = 64;
  static constexpr std::uint64_t kElementCost = sizeof(Value);
  static constexpr std::uint64_t kEntryCost = 48 + sizeof(std::string) + sizeof(Value);
  static constexpr std::uint64_t kBudgetPerByte = 64;
  static constexpr std::uint64_t kBudgetBase = std::uint64_t(16) << 20;

  // Per-object state for cycle detection and sharing.
  enum State : std::uint8_t { kUnseen, kOnPath, kSeenOnce, kShared };

  bool fail(std::string message) {
    if (error_.empty()) error_ = std::move(message);
    return false;
  }
  bool failAt(std::uint64_t index, std::string_view what) {
    return fail("bad binary property list: object " + std::to_string(index) + " at offset " +
                std::to_string(objectOffset_) + ": " + std::string(what));
  }

  bool readTrailer() {
    if (size_ < kHeaderSize || std::memcmp(data_, kMagic, kHeaderSize) != 0) {
      return fail("not a binary property list: no \"bplist00\" header");
    }
    if (size_ < kHeaderSize + kTrailerSize) {
      return fail("bad binary property list: too short for a trailer");
    }
    const std::uint8_t* t = data_ + size_ - kTrailerSize;
    offsetSize_ = t[kTrailerOffsetIntSize];
    refSize_ = t[kTrailerObjectRefSize];
    objectCount_ = readBigEndian(t + kTrailerObjectCount, 8);
    topObject_ = readBigEndian(t + kTrailerTopObject, 8);
    offsetTable_ = readBigEndian(t + kTrailerOffsetTableOffset, 8);
    const std::uint64_t trailerStart = size_ - kTrailerSize;
    std::string why;
    if (offsetSize_ < 1 || offsetSize_ > 8) {
      why = "offset size " + std::to_string(offsetSize_) + " is not 1 to 8";
    } else if (refSize_ < 1 || refSize_ > 8) {
      why = "object reference size " + std::to_string(refSize_) + " is not 1 to 8";
    } else if (objectCount_ == 0) {
      why = "no objects";
    } else if (topObject_ >= objectCount_) {
      why = "top object " + std::to_string(topObject_) + " is beyond the object count " +
            std::to_string(objectCount_);
    } else if (offsetTable_ <= kHeaderSize || offsetTable_ > trailerStart ||
               objectCount_ > (trailerStart - offsetTable_) / offsetSize_) {
      why = "offset table of " + std::to_string(objectCount_) + " entries at offset " +
            std::to_string(offsetTable_) + " does not fit between the header and the trailer";
    }
    if (!why.empty()) return fail("bad binary property list trailer: " + why);
    objectEnd_ = offsetTable_;
    state_.assign(objectCount_, kUnseen);
    budget_ = kBudgetPerByte * std::uint64_t(size_) + kBudgetBase;
    return true;
  }

  // Whether [pos, pos + length) lies inside the object area.
  bool fits(std::uint64_t pos, std::uint64_t length) const {
    return pos <= objectEnd_ && length <= objectEnd_ - pos;
  }

  bool spend(std::uint64_t index, std::uint64_t units) {
    if (units > budget_) {
      return failAt(index, "the file expands to too many values (shared or aliased objects)");
    }
    budget_ -= units;
    return true;
  }

  // Looks up the object's offset and reads its marker; leaves pos just after the marker.
  bool locate(std::uint64_t index, std::uint64_t& pos, std::uint8_t& marker) {
    if (index >= objectCount_) {
      return fail("bad binary property list: reference to object " + std::to_string(index) +
                  " beyond the object count " + std::to_string(objectCount_));
    }
    objectOffset_ = readBigEndian(data_ + offsetTable_ + index * offsetSize_, offsetSize_);
    if (objectOffset_ < kHeaderSize || objectOffset_ >= objectEnd_) {
      return failAt(index, "offset outside the object area");
    }
    marker = data_[objectOffset_];
    pos = objectOffset_ + 1;
    return true;
  }

  // The count in the marker's low nibble, or the integer object after it when the nibble is 0xF.
  bool readCount(std::uint64_t index, std::uint8_t marker, std::uint64_t& pos,
                 std::uint64_t& count) {
    if ((marker & 0x0F) != kExtendedCount) {
      count = marker & 0x0F;
      return true;
    }
    if (!fits(pos, 1) || (data_[pos] & 0xF0) != kInteger || (data_[pos] & 0x0F) > 3) {
      return failAt(index, "extended count is not a 1, 2, 4 or 8-byte integer");
    }
    unsigned width = 1u << (data_[pos] & 0x0F);
    if (!fits(pos + 1, width)) return failAt(index, "extended count runs past the object area");
    count = readBigEndian(data_ + pos + 1, width);
    if (width == 8 && count >> 63) return failAt(index, "negative count");
    pos += 1 + width;
    return true;
  }

  // Reads object `index`, nested inside `depth` containers.
  bool readObject(std::uint64_t index, unsigned depth, Value& out) {
    std::uint64_t pos = 0;
    std::uint8_t marker = 0;
    if (!locate(index, pos, marker)) return false;
    switch (marker & 0xF0) {
      case kSimple:
        if (marker == kNull || marker == kFill) {
          out = Value();
        } else if (marker == kFalse || marker == kTrue) {
          out = Value(marker == kTrue);
        } else {
          return failAt(index, "unknown marker " + hexByte(marker));
        }
        return true;
      case kInteger:
        return readInteger(index, marker, pos, out);
      case kReal:
        return readReal(index, marker, pos, out);
      case kDateType: {
        if (marker != kDate) return failAt(index, "unknown marker " + hexByte(marker));
        if (!fits(pos, 8)) return failAt(index, "date runs past the object area");
        out = Value(Date{std::bit_cast<double>(readBigEndian(data_ + pos, 8))});
        return true;
      }
      case kData:
        return readData(index, marker, pos, out);
      case kASCIIString:
      case kUTF16String: {
        std::string s;
        if (!readString(index, marker, pos, s)) return false;
        out = Value(std::move(s));
        return true;
      }
      case kUID:
        return readUID(index, marker, pos, out);
      case kArray:
      case kSet:
      case kDictionary:
        return readContainer(index, marker, pos, depth, out);
      default:
        return failAt(index, "unknown marker " + hexByte(marker));
    }
  }

  static std::string hexByte(std::uint8_t b) {
    static constexpr char kDigits[] = "0123456789abcdef";
    return std::string("0x") + kDigits[b >> 4] + kDigits[b & 0x0F];
  }

  bool readInteger(std::uint64_t index, std::uint8_t marker, std::uint64_t pos, Value& out) {
    unsigned log2 = marker & 0x0F;
    if (log2 > 4) return failAt(index, "integer of unsupported width " + hexByte(marker));
    unsigned width = 1u << log2;
    if (!fits(pos, width)) return failAt(index, "integer runs past the object area");
    const std::uint8_t* p = data_ + pos;
    if (width == 16) {
      // Written for values above INT64_MAX; anything needing the high half is out of range.
      if (readBigEndian(p, 8) != 0) {
        return failAt(index, "16-byte integer outside the unsigned 64-bit range");
      }
      out = Value(Integer::fromUnsigned(readBigEndian(p + 8, 8)));
    } else {
      // 1, 2 and 4 bytes are unsigned and fit; 8 bytes are two's complement.
      out = Value(Integer::fromSigned(std::int64_t(readBigEndian(p, width))));
    }
    return true;
  }

  bool readReal(std::uint64_t index, std::uint8_t marker, std::uint64_t pos, Value& out) {
    if (marker == (kReal | 2)) {
      if (!fits(pos, 4)) return failAt(index, "real runs past the object area");
      out = Value(double(std::bit_cast<float>(std::uint32_t(readBigEndian(data_ + pos, 4)))));
    } else if (marker == (kReal | 3)) {
      if (!fits(pos, 8)) return failAt(index, "real runs past the object area");
      out = Value(std::bit_cast<double>(readBigEndian(data_ + pos, 8)));
    } else {
      return failAt(index, "real of unsupported width " + hexByte(marker));
    }
    return true;
  }

  bool readUID(std::uint64_t index, std::uint8_t marker, std::uint64_t pos, Value& out) {
    unsigned width = (marker & 0x0F) + 1u;
    if (!fits(pos, width)) return failAt(index, "UID runs past the object area");
    const std::uint8_t* p = data_ + pos;
    for (; width > 8; --width, ++p) {
      if (*p != 0) return failAt(index, "UID above the 64-bit range");
    }
    out = Value(UID{readBigEndian(p, width)});
    return true;
  }

  bool readData(std::uint64_t index, std::uint8_t marker, std::uint64_t pos, Value& out) {
    if (state_[index] == kShared) {
      out = shared_.at(index).value;
      return true;
    }
    std::uint64_t length = 0;
    if (!readCount(index, marker, pos, length)) return false;
    if (!fits(pos, length)) return failAt(index, "data runs past the object area");
    if (!spend(index, kObjectCost + length)) return false;
    const std::uint8_t* p = data_ + pos;
    out = Value(std::make_shared<const Data>(p, p + length));
    remember(index, out, 0);
    return true;
  }

  // After a shareable object has been decoded: the second decode is kept for later references,
  // with the number of container levels it spans (0 for data).
  void remember(std::uint64_t index, const Value& v, unsigned height) {
    if (state_[index] == kSeenOnce) {
      shared_.emplace(index, Shared{v, height});
      state_[index] = kShared;
    } else {
      state_[index] = kSeenOnce;
    }
  }

  bool readString(std::uint64_t index, std::uint8_t marker, std::uint64_t pos, std::string& out) {
    std::uint64_t count = 0;
    if (!readCount(index, marker, pos, count)) return false;
    if ((marker & 0xF0) == kASCIIString) {
      if (!fits(pos, count)) return failAt(index, "string runs past the object area");
      if (!spend(index, count)) return false;
      const char* p = reinterpret_cast<const char*>(data_ + pos);
      for (std::uint64_t i = 0; i < count; ++i) {
        if (static_cast<unsigned char>(p[i]) >= 0x80) {
          return failAt(index, "ASCII string holds a byte above 0x7f");
        }
      }
      out.assign(p, count);
      return true;
    }
    if (count > (objectEnd_ - std::min(pos, objectEnd_)) / 2) {
      return failAt(index, "string runs past the object area");
    }
    if (!spend(index, count * 3)) return false;  // the most UTF-8 that count units make
    return decodeUTF16(index, data_ + pos, count, out);
  }

  // UTF-16BE to UTF-8. Lone surrogates are refused, as other readers of this format refuse them.
  bool decodeUTF16(std::uint64_t index, const std::uint8_t* p, std::uint64_t units,
                   std::string& out) {
    out.resize(units * 3);  // a BMP unit takes at most 3 bytes, a surrogate pair 4 for 2 units
    char* o = out.data();
    for (std::uint64_t i = 0; i < units; ++i) {
      std::uint32_t c = (std::uint32_t(p[2 * i]) << 8) | p[2 * i + 1];
      if (c < 0x80) {
        *o++ = char(c);
        continue;
      }
      if (c >= 0xD800 && c <= 0xDFFF) {
        std::uint32_t low = 0;
        if (c <= 0xDBFF && i + 1 < units) low = (std::uint32_t(p[2 * i + 2]) << 8) | p[2 * i + 3];
        if (low < 0xDC00 || low > 0xDFFF) return failAt(index, "string holds a lone surrogate");
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
      if (c < 0x800) {
        *o++ = char(0xC0 | (c >> 6));
      } else if (c < 0x10000) {
        *o++ = char(0xE0 | (c >> 12));
        *o++ = char(0x80 | ((c >> 6) & 0x3F));
      } else {
        *o++ = char(0xF0 | (c >> 18));
        *o++ = char(0x80 | ((c >> 12) & 0x3F));
        *o++ = char(0x80 | ((c >> 6) & 0x3F));
      }
      *o++ = char(0x80 | (c & 0x3F));
    }
    out.resize(std::size_t(o - out.data()));
    return true;
  }

  // A dictionary key: a string object, read without going through Value.
  bool readKey(std::uint64_t index, std::string& out) {
    std::uint64_t pos = 0;
    std::uint8_t marker = 0;
    if (!locate(index, pos, marker)) return false;
    std::uint8_t type = marker & 0xF0;
    if (type != kASCIIString && type != kUTF16String) {
      return failAt(index, "dictionary key is not a string");
    }
    return readString(index, marker, pos, out);
  }

  std::uint64_t referenceAt(std::uint64_t pos) const {
    return readBigEndian(data_ + pos, refSize_);
  }

  bool readContainer(std::uint64_t index, std::uint8_t marker, std::uint64_t pos, unsigned depth,
                     Value& out) {
    const bool isMutable = options_.mutability == Mutability::MutableContainers;
    if (state_[index] == kOnPath) return failAt(index, "object contains itself (a cycle)");
    auto tooDeep = [&] {
      return failAt(
          index, "containers nested deeper than " + std::to_string(options_.maxDepth) + " levels");
    };
    if (state_[index] == kShared) {
      // Shared from a shallower place, it may still reach too deep from here.
      const Shared& shared = shared_.at(index);
      if (depth + shared.height > options_.maxDepth) return tooDeep();
      deepest_ = std::max(deepest_, depth + shared.height);
      out = shared.value;
      return true;
    }
    if (depth >= options_.maxDepth) return tooDeep();
    const bool isDictionary = (marker & 0xF0) == kDictionary;
    std::uint64_t count = 0;
    if (!readCount(index, marker, pos, count)) return false;
    const std::uint64_t refsPerItem = isDictionary ? 2 : 1;
    if (pos > objectEnd_ || count > (objectEnd_ - pos) / refSize_ / refsPerItem) {
      return failAt(index,
                    "container of " + std::to_string(count) + " items runs past the object area");
    }
    // Charged before the elements' storage is made: a count that passed the check above may
    // still ask for far more memory than the file could honestly describe.
    if (!spend(index, kObjectCost + count * (isDictionary ? kEntryCost : kElementCost))) {
      return false;
    }
    const State before = State(state_[index]);
    const unsigned deepestBefore = deepest_;
    state_[index] = kOnPath;
    deepest_ = depth + 1;
    bool ok = isDictionary ? readDictionaryItems(pos, count, depth, isMutable, out)
                           : readArrayItems(pos, count, depth, isMutable, out);
    state_[index] = before;
    const unsigned height = deepest_ - depth;
    deepest_ = std::max(deepest_, deepestBefore);
    if (ok && !isMutable) remember(index, out, height);
    return ok;
  }

  bool readArrayItems(std::uint64_t pos, std::uint64_t count, unsigned depth, bool isMutable,
                      Value& out) {
    std::vector<Value> items(count);
    for (Value& item : items) {
      if (!readObject(referenceAt(pos), depth + 1, item)) return false;
      pos += refSize_;
    }
    out = Value(Array::make(std::move(items), isMutable));
    return true;
  }

  bool readDictionaryItems(std::uint64_t pos, std::uint64_t count, unsigned depth, bool isMutable,
                           Value& out) {
    Dictionary::Map entries;
    const std::uint64_t valuesPos = pos + count * refSize_;
    std::string key;
    for (std::uint64_t i = 0; i < count; ++i) {
      Value value;
      if (!readKey(referenceAt(pos + i * refSize_), key) ||
          !readObject(referenceAt(valuesPos + i * refSize_), depth + 1, value)) {
        return false;
      }
      // Keys usually arrive sorted, so the end is the right hint; a repeated key keeps the last.
      entries.insert_or_assign(entries.end(), std::move(key), std::move(value));
    }
    out = Value(Dictionary::make(std::move(entries), isMutable));
    return true;
  }

  const std::uint8_t* data_;
  std::size_t size_;
  const ReadOptions& options_;
  unsigned offsetSize_ = 0;
  unsigned refSize_ = 0;
  std::uint64_t objectCount_ = 0;
  std::uint64_t topObject_ = 0;
  std::uint64_t offsetTable_ = 0;
  std::uint64_t objectEnd_ = 0;     // objects lie in [kHeaderSize, objectEnd_)
  std::uint64_t objectOffset_ = 0;  // of the object being read, for messages
  std::uint64_t budget_ = 0;        // bytes of values still allowed
  std::vector<std::uint8_t> state_;
  struct Shared {
    Value value;
    unsigned height;
  };
  std::unordered_map<std::uint64_t, Shared> shared_;
  unsigned deepest_ = 0;  // the deepest container level reached under the current container
  std::string error_;
};

}  // namespace

ReadResult readBinaryPropertyList(std::span<const std::uint8_t> bytes, const ReadOptions& options) {
  return BinaryReader(bytes, options).read();
}

}  // namespace gw::plist
