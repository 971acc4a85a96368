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

INSTANTIATE_TEST_SUITE_P(BothEncodings, PlistlibRoundTripTest,
                         testing::Values(Format::XML, Format::Binary),
                         [](const testing::TestParamInfo<Format>& info) {
                           return formatName(info.param) == "xml" ? std::string("XML")
                                                                  : std::string("Binary");
                         });

}  // namespace
}  // namespace gw::plist
