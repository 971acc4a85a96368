// Differential tests of both encodings against python3's plistlib, with plistutil as a second
// independent reader of what we write.
#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/plistlib.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace gw::plist {
namespace {

constexpr int kDocuments = 60;

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string formatName(Format f) { return f == Format::XML ? "xml" : "binary"; }

class PlistlibRoundTripTest : public testing::TestWithParam<Format> {
 protected:
  // Generates the documents with plistlib.
  void SetUp() override {
    dir_ = root_.makeFolder("/plists");
    auto gen = gwtest::runPythonScript(
        "plistlib_tool.py", {"generate", dir_, std::to_string(kDocuments), formatName(GetParam()),
                             std::to_string(GetParam() == Format::XML ? 1 : 2)});
    ASSERT_EQ(gen.status, 0) << gen.err;
  }

  std::string path(int i, std::string_view suffix) const {
    return dir_ + "/" + std::to_string(i) + "." + std::string(suffix);
  }

  gwtest::TempRoot root_;
  std::string dir_;
};

TEST_P(PlistlibRoundTripTest, ReadsWhatPlistlibWritesAndPlistlibReadsWhatWeWrite) {
  for (int i = 0; i < kDocuments; ++i) {
    ReadResult r = readPropertyListFile(path(i, "plist"));
    ASSERT_TRUE(r) << "document " << i << ": " << r.error;
    EXPECT_EQ(r.format, GetParam());
    EXPECT_EQ(gwtest::canonicalText(*r.value), slurp(path(i, "dump"))) << "document " << i;
    std::string error;
    ASSERT_TRUE(writePropertyListFile(path(i, "ours"), *r.value, GetParam(), &error)) << error;

    // Reading our own output gives the same value again.
    ReadResult again = readPropertyListFile(path(i, "ours"));
    ASSERT_TRUE(again) << "document " << i << ": " << again.error;
    EXPECT_EQ(gwtest::canonicalText(*again.value), gwtest::canonicalText(*r.value));
  }
  auto compared = gwtest::runPythonScript("plistlib_tool.py",
                                          {"compare", dir_, std::to_string(kDocuments), "ours"});
  EXPECT_EQ(compared.status, 0) << compared.out << compared.err;
}

// plistutil reads what we write and re-encodes it as binary for plistlib to compare. Its XML
// writer garbles some strings, hence binary either way; and it keeps no integer sign (2^64-1 and
// -1 read alike), hence integers compare modulo 2^64.
TEST_P(PlistlibRoundTripTest, PlistutilReadsWhatWeWrite) {
  for (int i = 0; i < kDocuments; ++i) {
    ReadResult r = readPropertyListFile(path(i, "plist"));
    ASSERT_TRUE(r) << r.error;
    ASSERT_TRUE(writePropertyListFile(path(i, "ours"), *r.value, GetParam()));
    auto converted = gwtest::runProgram(
        {"plistutil", "-i", path(i, "ours"), "-o", path(i, "plistutil"), "-f", "bin"});
    ASSERT_EQ(converted.status, 0) << "document " << i << ": " << converted.err;
  }
  auto compared = gwtest::runPythonScript(
      "plistlib_tool.py",
      {"compare", dir_, std::to_string(kDocuments), "plistutil", "--ints-mod-64"});
  EXPECT_EQ(compared.status, 0) << compared.out << compared.err;
}

// Keyed archives hold UIDs. Binary documents with UIDs, written by plistlib, convert to XML that
// plistlib reads with each UID as the dictionary {"CF$UID": n}; plistlib's XML holding those
// dictionaries reads here as UIDs again, and converts to binary that plistlib reads as UIDs.
TEST(PlistlibUIDTest, UIDsConvertToCFUIDDictionariesAndBack) {
  gwtest::TempRoot root;
  const std::string dir = root.makeFolder("/plists");
  auto gen = gwtest::runPythonScript("plistlib_tool.py",
                                     {"generate", dir, std::to_string(kDocuments), "binary", "3"});
  ASSERT_EQ(gen.status, 0) << gen.err;
  auto asXML =
      gwtest::runPythonScript("plistlib_tool.py", {"uids-as-xml", dir, std::to_string(kDocuments)});
  ASSERT_EQ(asXML.status, 0) << asXML.err;

  int withUIDs = 0;
  for (int i = 0; i < kDocuments; ++i) {
    const std::string base = dir + "/" + std::to_string(i);
    ReadResult binary = readPropertyListFile(base + ".plist");
    ASSERT_TRUE(binary) << "document " << i << ": " << binary.error;
    if (slurp(base + ".dump").find("u:") != std::string::npos) ++withUIDs;
    std::string error;
    ASSERT_TRUE(writePropertyListFile(base + ".xml", *binary.value, Format::XML, &error)) << error;

    ReadResult fromPlistlibXML = readPropertyListFile(base + ".uidxml");
    ASSERT_TRUE(fromPlistlibXML) << "document " << i << ": " << fromPlistlibXML.error;
    EXPECT_EQ(gwtest::canonicalText(*fromPlistlibXML.value), slurp(base + ".uiddump"))
        << "document " << i;
    ASSERT_TRUE(writePropertyListFile(base + ".bin", *fromPlistlibXML.value, Format::Binary));
  }
  EXPECT_GT(withUIDs, kDocuments / 4);
  auto ourXML = gwtest::runPythonScript(
      "plistlib_tool.py", {"compare", dir, std::to_string(kDocuments), "xml", "--uids-as-dicts"});
  EXPECT_EQ(ourXML.status, 0) << ourXML.out << ourXML.err;
  auto ourBinary = gwtest::runPythonScript(
      "plistlib_tool.py", {"compare", dir, std::to_string(kDocuments), "bin", "--uids-from-xml"});
  EXPECT_EQ(ourBinary.status, 0) << ourBinary.out << ourBinary.err;
}

INSTANTIATE_TEST_SUITE_P(BothEncodings, PlistlibRoundTripTest,
                         testing::Values(Format::XML, Format::Binary),
                         [](const testing::TestParamInfo<Format>& info) {
                           return formatName(info.param) == "xml" ? std::string("XML")
                                                                  : std::string("Binary");
                         });

}  // namespace
}  // namespace gw::plist
