#include <gatewise/archive.h>
#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "support/log_capture.h"
#include "support/plistlib.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gw::plist::Array;
using gw::plist::Date;
using gw::plist::Dictionary;
using gw::plist::Format;
using gw::plist::Integer;
using gw::plist::UID;
using gw::plist::Value;

// A small class with a coder of its own, for the parts of the coder interface status items do not
// use (inline scalars, "$" keys, nested objects).
class Sample : public gw::GWObject {
 public:
  std::int64_t count = 0;
  double ratio = 0;
  bool flag = false;
  Value payload;
  std::string description() const override { return "<Sample>"; }
};

void registerSample() {
  gw::archive::registerCoder<Sample>({"GWSample",
                                      {"GWSample", "NSObject"},
                                      [](const gw::GWObject& object, gw::archive::Encoder& coder) {
                                        const auto& s = static_cast<const Sample&>(object);
                                        coder.encodeInt("count", s.count);
                                        coder.encodeDouble("ratio", s.ratio);
                                        coder.encodeBool("$flag", s.flag);
                                        coder.encodeObject("payload", s.payload);
                                      },
                                      [](gw::archive::Decoder& coder) -> gw::GWObjectRef {
                                        auto s = std::make_shared<Sample>();
                                        s->count = coder.decodeInt("count");
                                        s->ratio = coder.decodeDouble("ratio");
                                        s->flag = coder.decodeBool("$flag");
                                        s->payload = coder.decodeObject("payload");
                                        return s;
                                      }});
}

Value sampleTree() {
  return Value::newDictionary(
      {{"text", "h\u00e9llo <&>"},
       {"empty", ""},
       {"numbers", Value::newArray({Value(0), Value(-1), Value(INT64_MIN),
                                    Value(Integer::fromUnsigned(UINT64_MAX)), Value(1.5),
                                    Value(true), Value(false)})},
       {"when", Date{-31622400.25}},
       {"bytes", gw::plist::Data{0, 1, 255}},
       {"nested", Value::newDictionary({{"$key", Value::newArray()}, {"k", "text"}})}});
}

Value archiveTop(std::span<const std::uint8_t> bytes) {
  gw::plist::ReadOptions options;
  options.xmlUIDDictionaries = true;
  auto read = gw::plist::readPropertyList(bytes, options);
  EXPECT_TRUE(read) << read.error;
  return read ? *read.value : Value();
}

std::vector<std::uint8_t> bytesOf(const Value& top, Format format = Format::Binary) {
  auto text = gw::plist::writePropertyList(top, format);
  EXPECT_TRUE(text);
  return text ? std::vector<std::uint8_t>(text->begin(), text->end()) : std::vector<std::uint8_t>{};
}

std::vector<std::uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

TEST(KeyedArchiveTest, PlainValuesRoundTripInBothEncodingsInTheStandardFrame) {
  for (Format format : {Format::Binary, Format::XML}) {
    SCOPED_TRACE(format == Format::Binary ? "binary" : "xml");
    Value tree = sampleTree();
    auto bytes = gw::archive::archivedDataWithRootObject(tree, format);
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(bytes[0] == 'b', format == Format::Binary);

    Value top = archiveTop(bytes);
    ASSERT_TRUE(top.isDictionary());
    EXPECT_EQ(top.dictionary()->get("$archiver"), Value("NSKeyedArchiver"));
    EXPECT_EQ(top.dictionary()->get("$version"), Value(100000));
    const Array& objects = *top.dictionary()->get("$objects").array();
    EXPECT_EQ(objects[0], Value("$null"));
    EXPECT_TRUE(top.dictionary()->get("$top").dictionary()->get("root").isUID());

    Value back = gw::archive::unarchiveObjectWithData(bytes);
    EXPECT_EQ(back, tree);
    EXPECT_EQ(gwtest::canonicalText(back), gwtest::canonicalText(tree));
    EXPECT_TRUE(back.dictionary()->isMutable());
  }
  // Immutable containers are archived as the immutable classes and come back immutable.
  Value frozen = Value::newArray({Value::newDictionary({{"a", 1}})});
  gw::plist::makeImmutable(frozen);
  Value back =
      gw::archive::unarchiveObjectWithData(gw::archive::archivedDataWithRootObject(frozen));
  ASSERT_TRUE(back.isArray());
  EXPECT_FALSE(back.array()->isMutable());
  EXPECT_FALSE(back.array()->at(0).dictionary()->isMutable());
  EXPECT_EQ(back, frozen);
}

TEST(KeyedArchiveTest, SharedValuesAreWrittenOnceAndSelfContainingValuesAreRefused) {
  Value shared = Value::newDictionary({{"k", "v"}});
  Value twice = Value::newArray({shared, shared, "v", "v"});
  auto bytes = gw::archive::archivedDataWithRootObject(twice);
  Value top = archiveTop(bytes);
  const Array& objects = *top.dictionary()->get("$objects").array();
  const Value& rootUID = top.dictionary()->get("$top").dictionary()->get("root");
  const Array& refs = *objects[rootUID.uid().value].dictionary()->get("NS.objects").array();
  ASSERT_EQ(refs.size(), 4u);
  EXPECT_EQ(refs[0], refs[1]);
  EXPECT_EQ(refs[2], refs[3]);
  EXPECT_EQ(gw::archive::unarchiveObjectWithData(bytes), twice);

  gwtest::LogCapture log(0);
  Value loop = Value::newArray({1});
  Value inner = Value::newDictionary({{"back", loop}});
  loop.array()->append(inner);
  EXPECT_TRUE(gw::archive::archivedDataWithRootObject(loop).empty());
  EXPECT_TRUE(log.contains("*** Could not archive: a value contains itself"));
  inner.dictionary()->clear();  // break the cycle so the values can be freed

  log.clear();
  EXPECT_TRUE(gw::archive::archivedDataWithRootObject(Value::newArray({UID{3}})).empty());
  EXPECT_TRUE(log.contains("UID"));
}

TEST(KeyedArchiveTest, RegisteredObjectsRoundTripAndUnregisteredOnesAreRefused) {
  gwtest::LogCapture log(0);
  auto stranger = std::make_shared<Sample>();
  EXPECT_TRUE(gw::archive::archivedDataWithRootObject(Value(stranger)).empty());
  EXPECT_TRUE(log.contains("no coder for <Sample>"));

  registerSample();
  auto sample = std::make_shared<Sample>();
  sample->count = -7;
  sample->ratio = 0.25;
  sample->flag = true;
  auto inner = std::make_shared<Sample>();
  inner->count = 3;
  sample->payload = Value::newArray({Value(inner), "x"});
  for (Format format : {Format::Binary, Format::XML}) {
    auto bytes = gw::archive::archivedDataWithRootObject(Value(sample), format);
    ASSERT_FALSE(bytes.empty());
    // Scalars sit inline in the object's dictionary; "$" keys get one more "$".
    Value top = archiveTop(bytes);
    const Array& objects = *top.dictionary()->get("$objects").array();
    const Dictionary& fields =
        *objects[top.dictionary()->get("$top").dictionary()->get("root").uid().value].dictionary();
    EXPECT_EQ(fields.get("count"), Value(-7));
    EXPECT_EQ(fields.get("$$flag"), Value(true));
    const Dictionary& info = *objects[fields.get("$class").uid().value].dictionary();
    EXPECT_EQ(info.get("$classname"), Value("GWSample"));
    EXPECT_EQ(info.get("$classes"), Value::newArray({"GWSample", "NSObject"}));

    auto back = gw::archive::unarchiveObjectWithData(bytes).ifObject<Sample>();
    ASSERT_TRUE(back);
    EXPECT_EQ(back->count, -7);
    EXPECT_EQ(back->ratio, 0.25);
    EXPECT_TRUE(back->flag);
    ASSERT_TRUE(back->payload.isArray());
    auto backInner = back->payload.array()->at(0).ifObject<Sample>();
    ASSERT_TRUE(backInner);
    EXPECT_EQ(backInner->count, 3);
    EXPECT_EQ(back->payload.array()->at(1), Value("x"));
  }
}

// Hand-made archives: a frame around an object table.
Value frame(std::vector<Value> objects, Value root = UID{1}) {
  return Value::newDictionary({{"$archiver", "NSKeyedArchiver"},
                               {"$version", 100000},
                               {"$objects", Value(Array::make(std::move(objects)))},
                               {"$top", Value::newDictionary({{"root", root}})}});
}
Value arrayClass() {
  return Value::newDictionary(
      {{"$classname", "NSArray"}, {"$classes", Value::newArray({"NSArray", "NSObject"})}});
}
Value arrayOf(std::initializer_list<Value> refs, std::uint64_t classUID) {
  return Value::newDictionary({{"NS.objects", Value::newArray(refs)}, {"$class", UID{classUID}}});
}

TEST(KeyedArchiveTest, HostileArchivesFailWithANullValueAndALogLine) {
  // Tables of n arrays, each holding the next, and a string at the bottom: n + 1 levels.
  auto chain = [](unsigned n) {
    std::vector<Value> objects{"$null", arrayClass()};
    for (unsigned i = 0; i < n; ++i) objects.push_back(arrayOf({UID{i + 3}}, 1));
    objects.push_back("bottom");
    return frame(objects, UID{2});
  };

  struct Case {
    const char* name;
    Value top;
    const char* reason;
  };
  Value dictionaryClass = Value::newDictionary({{"$classname", "NSDictionary"}});
  std::vector<Case> cases = {
      {"root out of range", frame({"$null", "x"}, UID{2}), "out of range"},
      {"element out of range", frame({"$null", arrayOf({UID{99}}, 2), arrayClass()}),
       "out of range"},
      {"array holds itself", frame({"$null", arrayOf({UID{1}}, 2), arrayClass()}), "itself"},
      {"two arrays hold each other",
       frame({"$null", arrayOf({UID{3}}, 2), arrayClass(), arrayOf({UID{1}}, 2)}), "itself"},
      {"class is itself", frame({"$null", arrayOf({}, 1)}), "$classname"},
      {"no $class", frame({"$null", Value::newDictionary({{"NS.objects", Value::newArray()}})}),
       "$class"},
      {"$class not a UID",
       frame({"$null", Value::newDictionary({{"NS.objects", Value::newArray()}, {"$class", 2}}),
              arrayClass()}),
       "$class"},
      {"$class is $null", frame({"$null", arrayOf({}, 0)}), "$class"},
      {"unknown class",
       frame({"$null", arrayOf({}, 2), Value::newDictionary({{"$classname", "Mystery"}})}),
       "unknown class Mystery"},
      {"NS.objects not an array",
       frame({"$null", Value::newDictionary({{"NS.objects", "no"}, {"$class", UID{2}}}),
              arrayClass()}),
       "NS.objects"},
      {"element not a UID", frame({"$null", arrayOf({Value(1)}, 2), arrayClass()}), "not a UID"},
      {"nil element", frame({"$null", arrayOf({UID{0}}, 2), arrayClass()}), "nil"},
      {"keys and objects differ",
       frame({"$null",
              Value::newDictionary({{"NS.keys", Value::newArray({UID{3}})},
                                    {"NS.objects", Value::newArray()},
                                    {"$class", UID{2}}}),
              dictionaryClass, "k"}),
       "differ"},
      {"key not a string",
       frame({"$null",
              Value::newDictionary({{"NS.keys", Value::newArray({UID{3}})},
                                    {"NS.objects", Value::newArray({UID{3}})},
                                    {"$class", UID{2}}}),
              dictionaryClass, 5}),
       "not a string"},
      {"NS.time not a number",
       frame({"$null", Value::newDictionary({{"NS.time", "soon"}, {"$class", UID{2}}}),
              Value::newDictionary({{"$classname", "NSDate"}})}),
       "NS.time"},
      {"root not a UID", frame({"$null", "x"}, Value(1)), "not a UID"},
      {"table entry is an array", frame({"$null", Value::newArray()}), "neither"},
      {"too deep", chain(gw::archive::kMaxArchiveDepth), "too deep"},
  };
  gwtest::LogCapture log(0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log.clear();
    EXPECT_TRUE(gw::archive::unarchiveObjectWithData(bytesOf(c.top)).isNull());
    EXPECT_TRUE(log.contains("*** Not a keyed archive")) << c.name;
    EXPECT_TRUE(log.contains(c.reason)) << (log.lines().empty() ? "" : log.lines().back());
  }
  // The frame itself.
  Value wrongArchiver = frame({"$null", "x"});
  wrongArchiver.dictionary()->set("$archiver", "Other");
  Value wrongVersion = frame({"$null", "x"});
  wrongVersion.dictionary()->set("$version", 99999);
  Value noTop = frame({"$null", "x"});
  noTop.dictionary()->remove("$top");
  for (const Value& top : {wrongArchiver, wrongVersion, noTop, frame({}), Value("text")})
    EXPECT_TRUE(gw::archive::unarchiveObjectWithData(bytesOf(top)).isNull());
  for (std::string_view junk :
       {std::string_view(""), std::string_view("bplist00"), std::string_view("<plist><dict>"),
        std::string_view("\x00\x01\x02", 3)}) {
    std::vector<std::uint8_t> bytes(junk.begin(), junk.end());
    EXPECT_TRUE(gw::archive::unarchiveObjectWithData(bytes).isNull());
  }
  // Just within the bound decodes, and the same table entry met twice is shared, not a cycle.
  Value within =
      gw::archive::unarchiveObjectWithData(bytesOf(chain(gw::archive::kMaxArchiveDepth - 1)));
  EXPECT_TRUE(within.isArray());
  Value diamond = gw::archive::unarchiveObjectWithData(
      bytesOf(frame({"$null", arrayOf({UID{3}, UID{3}}, 2), arrayClass(), arrayOf({}, 2)})));
  EXPECT_EQ(diamond, Value::newArray({Value::newArray(), Value::newArray()}));
}

TEST(KeyedArchiveTest, ArchivesOfAnotherWriterDecodeAndOursDecodeElsewhere) {
  gwtest::TempRoot root;
  const std::string tool =
      std::string(GATEWISE_TEST_SOURCE_DIR) + "/platform/archive/" + "keyed_archive_tool.py";
  Value tree = Value::newDictionary(
      {{"list", Value::newArray({"a", "a", Value(42), Value(-2.5), Value(true)})},
       {"when", Date{812345678.0}},
       {"data", gw::plist::Data{9, 8, 7}},
       {"inner", Value::newDictionary({{"x", Value::newArray()}})}});
  std::string plain = root.at("/plain.plist");
  ASSERT_TRUE(gw::plist::writePropertyListFile(plain, tree, Format::Binary));

  for (const char* format : {"binary", "xml"}) {
    SCOPED_TRACE(format);
    std::string theirs = root.at(std::string("/theirs.") + format);
    auto made = gwtest::runProgram({GATEWISE_TEST_PYTHON3, tool, "archive", plain, theirs, format});
    ASSERT_EQ(made.status, 0) << made.err;
    Value decoded = gw::archive::unarchiveObjectWithData(readFile(theirs));
    EXPECT_EQ(gwtest::canonicalText(decoded), gwtest::canonicalText(tree));

    std::string ours = root.at(std::string("/ours.") + format);
    auto bytes = gw::archive::archivedDataWithRootObject(
        tree, std::string_view(format) == "xml" ? Format::XML : Format::Binary);
    root.writeFile(std::string("/ours.") + format, std::string(bytes.begin(), bytes.end()));
    auto read = gwtest::runProgram({GATEWISE_TEST_PYTHON3, tool, "unarchive", ours});
    ASSERT_EQ(read.status, 0) << read.err;
    EXPECT_EQ(read.out, gwtest::canonicalText(tree) + "\n");
  }
}

}  // namespace
