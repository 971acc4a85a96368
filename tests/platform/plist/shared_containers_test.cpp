// Values whose containers are held in many places, or inside themselves: every walk (validity,
// description, writing, copying, comparing) must cost in proportion to the distinct containers.
#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace gw::plist {
namespace {

// A binary file of `levels` arrays, each holding `width` references to the next, the last one
// holding a string: about 200 bytes a level, 200^10 strings when expanded.
std::string chainOfSharedArrays(unsigned levels, unsigned width) {
  std::string file = "bplist00";
  std::vector<std::size_t> offsets;
  for (unsigned i = 0; i < levels; ++i) {
    offsets.push_back(file.size());
    file += char(0xAF);  // array, count in the integer that follows
    file += char(0x11);  // two-byte integer
    file += char(width >> 8);
    file += char(width & 0xFF);
    file.append(width, char(i + 1));
  }
  offsets.push_back(file.size());
  file += "\x51x";
  const std::size_t table = file.size();
  for (std::size_t offset : offsets) {
    file += char(offset >> 8);
    file += char(offset & 0xFF);
  }
  std::string trailer(32, '\0');
  trailer[6] = 2;  // offset width
  trailer[7] = 1;  // reference width
  trailer[15] = char(offsets.size());
  trailer[30] = char(table >> 8);
  trailer[31] = char(table & 0xFF);
  return file + trailer;
}

TEST(PlistSharedContainersTest, ASmallFileOfSharedArraysStaysSmallInEveryWalk) {
  const std::string file = chainOfSharedArrays(10, 200);
  ASSERT_LT(file.size(), 2200u);
  ReadResult r = readPropertyList(file);
  ASSERT_TRUE(r) << r.error;
  const Value& v = *r.value;

  EXPECT_TRUE(isValidPropertyList(v, Format::Binary));
  EXPECT_TRUE(isValidPropertyList(v, Format::XML));

  // Binary: each shared array is written once and referenced, so the file stays the same size.
  std::optional<std::string> binary = writePropertyList(v, Format::Binary);
  ASSERT_TRUE(binary);
  EXPECT_LT(binary->size(), 2 * file.size());
  ReadResult back = readPropertyList(*binary);
  ASSERT_TRUE(back) << back.error;
  EXPECT_TRUE(*back.value == v);  // two separate reads: compared without expanding

  // XML has no references: the text would be far too large and is refused, not attempted.
  std::string error;
  EXPECT_FALSE(writePropertyList(v, Format::XML, &error));
  EXPECT_NE(error.find("larger than a property list may be"), std::string::npos) << error;

  EXPECT_FALSE(description(v, std::size_t(1) << 20));
  const std::string cut = description(v);
  EXPECT_LE(cut.size(), kMaxDescriptionSize + 3);
  EXPECT_EQ(cut.substr(cut.size() - 3), "...");

  // A deep copy keeps the sharing: one copy of each shared array, held in every place.
  ASSERT_EQ(v.array()->at(1).array().get(), v.array()->at(199).array().get());
  Value copy = deepMutableCopy(v);
  const Array& top = *copy.array();
  ASSERT_EQ(top.size(), 200u);
  EXPECT_EQ(top[1].array().get(), top[199].array().get());
  EXPECT_NE(top[1].array().get(), v.array()->at(1).array().get());
  EXPECT_TRUE(top[0].array()->isMutable());
  makeImmutable(copy);
  EXPECT_FALSE(top[0].array()->at(0).array()->isMutable());
}

TEST(PlistSharedContainersTest, SmallSharedValuesDescribeAndWriteInFull) {
  Value leaf = Value::newArray({"a"});
  Value v = Value::newArray({leaf, leaf});
  EXPECT_EQ(description(v), "(\n        (\n        a\n    ),\n        (\n        a\n    )\n)");
  EXPECT_EQ(description(v, 1000), description(v));
  EXPECT_FALSE(description(v, 10));
  ReadResult back = readPropertyList(*writePropertyList(v, Format::XML));
  ASSERT_TRUE(back) << back.error;
  EXPECT_EQ(*back.value, v);
  EXPECT_NE(Value::newArray({leaf, Value::newArray({"b"})}), v);
}

TEST(PlistSharedContainersTest, AContainerInsideItselfEndsEveryWalk) {
  ArrayRef loop = Array::make({Value("x")});
  loop->append(loop);
  DictionaryRef holder = Dictionary::make();
  holder->set("loop", loop);
  holder->set("self", holder);
  const Value v = holder;

  EXPECT_FALSE(isValidPropertyList(v, Format::Binary));
  EXPECT_FALSE(isValidPropertyList(v, Format::XML));
  std::string error;
  EXPECT_FALSE(writePropertyList(v, Format::Binary, &error));
  EXPECT_NE(error.find("inside itself"), std::string::npos) << error;
  EXPECT_FALSE(writePropertyList(Value(loop), Format::XML));
  EXPECT_EQ(description(Value(loop)), "(\n    x,\n        (...)\n)");
  EXPECT_NE(description(v).find("self =     {...};"), std::string::npos) << description(v);

  Value copy = deepMutableCopy(v);
  const DictionaryRef& copied = copy.dictionary();
  EXPECT_EQ(copied->get("self").dictionary().get(), copied.get());
  EXPECT_NE(copied.get(), holder.get());
  EXPECT_TRUE(copy == v);

  // Break the cycles so that the containers are freed.
  Array* copiedLoop = copied->get("loop").ifArray();
  copiedLoop->clear();
  copied->clear();
  loop->mutableItems().clear();
  holder->mutableEntries().clear();
}

}  // namespace
}  // namespace gw::plist
