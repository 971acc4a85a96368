// The binary property-list codec against hand-built bytes: exact output, width switches, the
// integer and string forms, uniquing, and malformed input of every kind.
#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace gw::plist {
namespace {

using Bytes = std::string;

Bytes hex(std::initializer_list<int> bytes) {
  Bytes out;
  for (int b : bytes) out.push_back(char(b));
  return out;
}

Bytes bigEndian(std::uint64_t v, unsigned width) {
  Bytes out(width, '\0');
  for (unsigned i = width; i-- > 0; v >>= 8) out[i] = char(v & 0xFF);
  return out;
}

std::uint64_t readBigEndian(const Bytes& b, std::size_t at, unsigned width) {
  std::uint64_t v = 0;
  for (unsigned i = 0; i < width; ++i) v = (v << 8) | std::uint8_t(b[at + i]);
  return v;
}

struct Trailer {
  unsigned offsetSize, refSize;
  std::uint64_t count, top, offsetTable;
};

Trailer trailerOf(const Bytes& b) {
  const std::size_t t = b.size() - 32;
  return {std::uint8_t(b[t + 6]), std::uint8_t(b[t + 7]), readBigEndian(b, t + 8, 8),
          readBigEndian(b, t + 16, 8), readBigEndian(b, t + 24, 8)};
}

// A file of the given objects laid out back to back after the header, with 1-byte offsets unless
// asked otherwise. Trailer fields can be overridden to build broken files.
Bytes document(const std::vector<Bytes>& objects, unsigned refSize = 1, std::uint64_t top = 0,
               unsigned offsetSize = 1) {
  Bytes out = "bplist00";
  Bytes table;
  for (const Bytes& o : objects) {
    table += bigEndian(out.size(), offsetSize);
    out += o;
  }
  const std::uint64_t tableAt = out.size();
  out += table;
  out += Bytes(6, '\0') + char(offsetSize) + char(refSize) + bigEndian(objects.size(), 8) +
         bigEndian(top, 8) + bigEndian(tableAt, 8);
  return out;
}

Bytes write(const Value& v) {
  std::string error;
  std::optional<Bytes> out = writePropertyList(v, Format::Binary, &error);
  EXPECT_TRUE(out) << error;
  return out.value_or(Bytes());
}

Value read(const Bytes& b, const ReadOptions& options = {}) {
  ReadResult r = readPropertyList(b, options);
  EXPECT_TRUE(r) << r.error;
  EXPECT_EQ(r.format, Format::Binary);
  return r.value.value_or(Value());
}

// The bytes of object `index` in a file we wrote, up to the next object or the offset table.
Bytes objectBytes(const Bytes& b, std::uint64_t index) {
  Trailer t = trailerOf(b);
  auto offset = [&](std::uint64_t i) {
    return i < t.count ? readBigEndian(b, t.offsetTable + i * t.offsetSize, t.offsetSize)
                       : t.offsetTable;
  };
  return b.substr(offset(index), offset(index + 1) - offset(index));
}

TEST(BinaryPlistTest, SmallDocumentHasExactBytesAndStoresARepeatedStringOnce) {
  Value doc = Value::newDictionary({{"a", Value::newArray({1, "a", true})}});
  // Pre-order numbering, keys before values: 0 dictionary, 1 "a" (key and element), 2 array,
  // 3 the integer 1, 4 true.
  Bytes expected =
      hex({'b',  'p',  'l',  'i',  's',  't', '0', '0', 0xD1, 0x01, 0x02,  // 8: dictionary {1: 2}
           0x51, 'a',                                                      // 11: "a"
           0xA3, 0x03, 0x01, 0x04,                                         // 13: array (3, 1, 4)
           0x10, 0x01,                                                     // 17: 1
           0x09,                                                           // 19: true
           0x08, 0x0B, 0x0D, 0x11, 0x13,                                   // 20: offset table
           0,    0,    0,    0,    0,    0,   1,   1}) +
      bigEndian(5, 8) + bigEndian(0, 8) + bigEndian(20, 8);
  EXPECT_EQ(write(doc), expected);
  EXPECT_EQ(read(expected), doc);
}

TEST(BinaryPlistTest, ReferenceWidthGrowsAt256ObjectsAndOffsetWidthAbove65535) {
  for (int items : {254, 255}) {  // with the array itself: 255 and 256 objects
    Value array = Value::newArray();
    for (int i = 0; i < items; ++i) array.array()->append(1000 + i);
    Bytes b = write(array);
    Trailer t = trailerOf(b);
    EXPECT_EQ(t.count, std::uint64_t(items + 1));
    EXPECT_EQ(t.refSize, items == 254 ? 1u : 2u);
    // An extended count: 0xAF, then the count as a 1-byte integer object.
    EXPECT_EQ(b.substr(8, 3), hex({0xAF, 0x10, items}));
    EXPECT_EQ(b.substr(11, t.refSize), bigEndian(1, t.refSize));
    EXPECT_EQ(read(b), array);
  }
  for (std::size_t length : {60000u, 70000u}) {
    Value doc = Value::newArray({Data(length, 0xAB), 7});
    Bytes b = write(doc);
    Trailer t = trailerOf(b);
    EXPECT_EQ(t.offsetSize, length == 60000 ? 2u : 4u);
    // 8: array A2 01 02; 11: data 4F, its length as an integer object, the bytes; then 7.
    const unsigned lengthWidth = length < 65536 ? 2 : 4;
    EXPECT_EQ(readBigEndian(b, t.offsetTable + 2 * t.offsetSize, t.offsetSize),
              11 + 2 + lengthWidth + length);
    EXPECT_EQ(read(b), doc);
  }
}

TEST(BinaryPlistTest, IntegersTakeTheSmallestFormAndUnsignedAboveInt64MaxTakes16Bytes) {
  const Bytes ff8(8, '\xFF');
  struct Case {
    Value value;
    Bytes bytes;
  } cases[] = {
      {Value(255), hex({0x10, 0xFF})},
      {Value(256), hex({0x11, 0x01, 0x00})},
      {Value(65536), hex({0x12, 0x00, 0x01, 0x00, 0x00})},
      {Value(std::int64_t(1) << 32), hex({0x13}) + bigEndian(std::uint64_t(1) << 32, 8)},
      {Value(-1), hex({0x13}) + ff8},
      {Value(INT64_MAX), hex({0x13, 0x7F}) + Bytes(7, '\xFF')},
      {Value(std::uint64_t(1) << 63), hex({0x14}) + Bytes(8, '\0') + hex({0x80}) + Bytes(7, 0)},
      {Value(UINT64_MAX), hex({0x14}) + Bytes(8, '\0') + ff8},
  };
  for (const Case& c : cases) {
    Bytes b = write(Value::newArray({c.value}));
    EXPECT_EQ(objectBytes(b, 1), c.bytes) << description(c.value);
    Value back = read(b).array()->at(0);
    EXPECT_EQ(back.integer(), c.value.integer()) << description(c.value);
  }
  // A 16-byte integer that needs its high half is out of range.
  ReadResult r = readPropertyList(document({hex({0x14, 0, 0, 0, 0, 0, 0, 0, 1}) + ff8}));
  EXPECT_FALSE(r);
  EXPECT_NE(r.error.find("16-byte integer"), std::string::npos) << r.error;
}

TEST(BinaryPlistTest, NonASCIIStringsAreUTF16WithSurrogatePairs) {
  Bytes b = write(Value::newArray({"a\xF0\x9F\x98\x80\xC3\xA9", "plain"}));  // a, U+1F600, é
  EXPECT_EQ(objectBytes(b, 1), hex({0x64, 0x00, 'a', 0xD8, 0x3D, 0xDE, 0x00, 0x00, 0xE9}));
  EXPECT_EQ(objectBytes(b, 2), hex({0x55, 'p', 'l', 'a', 'i', 'n'}));
  EXPECT_EQ(read(b).array()->at(0).string(), "a\xF0\x9F\x98\x80\xC3\xA9");
  // Malformed UTF-8 is written as U+FFFD rather than as garbage.
  Bytes bad = write(Value("\xFFz"));
  EXPECT_EQ(objectBytes(bad, 0), hex({0x62, 0xFF, 0xFD, 0x00, 'z'}));
}

TEST(BinaryPlistTest, EqualLeavesAndSharedContainersAreWrittenOnce) {
  Value inner = Value::newArray({1});
  Bytes b = write(Value::newArray({"same", "same", 7, 7, 7.0, inner, inner, true, 1}));
  // outer, "same", 7, 7.0, inner, 1, true: booleans, integers and reals stay apart.
  EXPECT_EQ(trailerOf(b).count, 7u);
  EXPECT_EQ(objectBytes(b, 0), hex({0xA9, 1, 1, 2, 2, 3, 4, 4, 6, 5}));
  // Equal but distinct containers are distinct objects.
  EXPECT_EQ(trailerOf(write(Value::newArray({Value::newArray(), Value::newArray()}))).count, 3u);
}

TEST(BinaryPlistTest, ReadsEveryObjectKind) {
  Bytes b = document({
      hex({0xAA, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}), hex({0x22, 0x3F, 0xC0, 0, 0}),  // float 1.5
      hex({0x33}) + bigEndian(0xC0F0000000000000, 8),                             // date -65536.0
      hex({0x80, 0x05}),                                                          // UID 5
      hex({0x8F}) + Bytes(8, '\0') + bigEndian(UINT64_MAX, 8),                    // 16-byte UID
      hex({0x0F}),                               // fill, read as null
      hex({0xC2, 1, 3}),                         // a set, read as an array
      hex({0x5F, 0x10, 0x10}) + Bytes(16, 'x'),  // extended count
      hex({0x43, 1, 2, 3}),                      // data
      hex({0xD0}),                               // empty dictionary
      hex({0x08}),                               // false
  });
  Value v = read(b);
  Value expected = Value::newArray({1.5, Date{-65536.0}, UID{5}, UID{UINT64_MAX}, Value(),
                                    Value::newArray({1.5, UID{5}}), std::string(16, 'x'),
                                    Data{1, 2, 3}, Value::newDictionary(), false});
  EXPECT_EQ(v, expected);
}

TEST(BinaryPlistTest, ContainersAreImmutableUnlessMutableContainersAreAsked) {
  Bytes b = write(Value::newDictionary({{"list", Value::newArray({1})}}));
  Value frozen = read(b);
  EXPECT_THROW(frozen.dictionary()->set("x", 1), GWException);
  EXPECT_THROW(frozen.dictionary()->get("list").array()->append(2), GWException);
  ReadOptions options;
  options.mutability = Mutability::MutableContainers;
  Value thawed = read(b, options);
  EXPECT_NO_THROW(thawed.dictionary()->get("list").array()->append(2));
  EXPECT_NO_THROW(thawed.dictionary()->set("x", 1));
}

// Arrays nested `levels` deep around an empty array.
Bytes nested(int levels) {
  std::vector<Bytes> objects;
  for (int i = 0; i < levels; ++i) objects.push_back(hex({0xA1}) + bigEndian(i + 1, 2));
  objects.push_back(hex({0xA0}));
  return document(objects, 2, 0, 4);
}

TEST(BinaryPlistTest, MalformedInputFailsWithAOneLineReason) {
  const Bytes good = write(Value::newDictionary({{"a", Value::newArray({1, "a", true})}}));
  for (std::size_t n = 0; n < good.size(); ++n) {
    ReadResult r = readPropertyList(good.substr(0, n));
    EXPECT_FALSE(r) << "prefix of " << n << " bytes";
  }
  auto withTrailerByte = [&](std::size_t at, char b) {
    Bytes broken = good;
    broken[broken.size() - 32 + at] = b;
    return broken;
  };
  struct Case {
    const char* what;
    Bytes bytes;
    const char* reason;
  } cases[] = {
      {"offset size 0", withTrailerByte(6, 0), "offset size 0"},
      {"reference size 9", withTrailerByte(7, 9), "reference size 9"},
      {"no objects", withTrailerByte(15, 0), "no objects"},
      {"top beyond count", withTrailerByte(23, 5), "top object 5"},
      {"offset table past the end", withTrailerByte(31, 0x7F), "does not fit"},
      {"offset beyond the file", document({hex({0xA1, 1}), hex({0x09})}).replace(12, 1, "\x60"),
       "outside the object area"},
      {"reference beyond the count", document({hex({0xA1, 5}), hex({0x09})}),
       "beyond the object count"},
      {"array containing itself", document({hex({0xA1, 0})}), "cycle"},
      {"indirect cycle", document({hex({0xA1, 1}), hex({0xD1, 2, 0}), hex({0x51, 'k'})}), "cycle"},
      {"absurd array count", document({hex({0xAF, 0x13, 0x0F}) + Bytes(7, '\xFF')}), "runs past"},
      {"negative count", document({hex({0x4F, 0x13}) + Bytes(8, '\xFF')}), "negative count"},
      {"absurd UTF-16 count", document({hex({0x6F, 0x13, 0x40}) + Bytes(7, 0)}), "runs past"},
      {"count not an integer", document({hex({0x5F, 0x22, 0, 0, 0, 0})}), "extended count"},
      {"integer key", document({hex({0xD1, 1, 1}), hex({0x10, 1})}), "key is not a string"},
      {"lone surrogate", document({hex({0x61, 0xD8, 0x00})}), "lone surrogate"},
      {"non-ASCII byte", document({hex({0x51, 0xE9})}), "above 0x7f"},
      {"unknown marker", document({hex({0x70})}), "unknown marker 0x70"},
      {"3-byte real", document({hex({0x21, 0, 0})}), "real of unsupported width"},
      {"too deep", nested(600), "nested deeper than 512"},
  };
  for (const Case& c : cases) {
    ReadResult r = readPropertyList(c.bytes);
    EXPECT_FALSE(r) << c.what;
    EXPECT_NE(r.error.find(c.reason), std::string::npos) << c.what << ": " << r.error;
    EXPECT_EQ(r.error.find('\n'), std::string::npos) << c.what;
  }
}

TEST(BinaryPlistTest, DepthLimitCountsNestedContainers) {
  ReadOptions options;
  options.maxDepth = 3;
  EXPECT_TRUE(readPropertyList(nested(2), options));  // three arrays
  EXPECT_FALSE(readPropertyList(nested(3), options));
  EXPECT_TRUE(readPropertyList(nested(511)));
  // C = [[]] appears twice at the second level, then inside X one level deeper: by then it is
  // shared rather than decoded again, and must still count its own two levels.
  const Bytes reused =
      document({hex({0xA3, 1, 1, 2}), hex({0xA1, 3}), hex({0xA1, 1}), hex({0xA0})});
  EXPECT_FALSE(readPropertyList(reused, options));
  options.maxDepth = 4;
  EXPECT_TRUE(readPropertyList(reused, options));
}

TEST(BinaryPlistTest, SharedReferencesCannotExpandWithoutBound) {
  // Each array holds the next one twice: 2^60 elements if every reference were copied out.
  std::vector<Bytes> objects;
  for (int i = 0; i < 60; ++i) objects.push_back(hex({0xA2, i + 1, i + 1}));
  objects.push_back(hex({0x09}));
  const Bytes bomb = document(objects);
  Value shared = read(bomb);  // immutable containers are shared, so this is small
  EXPECT_TRUE(shared.array()->at(0).array()->at(1).isArray());
  ReadOptions options;
  options.mutability = Mutability::MutableContainers;
  ReadResult r = readPropertyList(bomb, options);
  EXPECT_FALSE(r);
  EXPECT_NE(r.error.find("too many values"), std::string::npos) << r.error;
}

}  // namespace
}  // namespace gw::plist

namespace gw::plist {
namespace {

TEST(BinaryPlistTest, MemoryStaysWithinASmallMultipleOfTheFile) {
  // 60,000 one-byte references to one string of 1,000 bytes: 60 MB of strings from a 61 KB file.
  const Bytes thousand = hex({0x5F, 0x11}) + bigEndian(1000, 2) + Bytes(1000, 'x');
  const Bytes manyCopies =
      document({hex({0xAF, 0x12}) + bigEndian(60000, 4) + Bytes(60000, '\1'), thousand}, 1, 0, 4);
  ReadResult r = readPropertyList(manyCopies);
  EXPECT_FALSE(r);
  EXPECT_NE(r.error.find("too many values"), std::string::npos) << r.error;

  // The densest honest form passes: a dictionary of one-byte references to shared keys and values,
  // and an array of many references to one small string.
  std::vector<Bytes> objects(1);
  objects[0] = hex({0xDF, 0x10, 200});
  for (int i = 1; i <= 200; ++i) objects[0] += char(i);
  objects[0] += Bytes(200, char(201));
  for (int i = 1; i <= 200; ++i) objects.push_back(hex({0x54}) + std::to_string(1000 + i));
  objects.push_back(hex({0x09}));
  ReadResult dense = readPropertyList(document(objects, 1, 0, 2));
  ASSERT_TRUE(dense) << dense.error;
  EXPECT_EQ(dense.value->dictionary()->size(), 200u);
  const Bytes shortCopies = document(
      {hex({0xAF, 0x12}) + bigEndian(60000, 4) + Bytes(60000, '\1'), hex({0x55}) + "short"}, 1, 0,
      4);
  ReadResult many = readPropertyList(shortCopies);
  ASSERT_TRUE(many) << many.error;
  EXPECT_EQ(many.value->array()->size(), 60000u);
}

}  // namespace
}  // namespace gw::plist
