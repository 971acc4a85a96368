// gatewise plist convert|print as a black box; python3's plistlib writes the inputs and checks the
// outputs, as an implementation independent of ours.
#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/fs/file_info.h"
#include "platform/fs/file_io.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gwtest::runCli;
using gwtest::RunResult;

// A managed user's settings-like dictionary, written and checked by plistlib.
constexpr const char* kPlistlibScript = R"(
import datetime, plistlib, sys
value = {
    "name": "kim", "uid": 501, "big": 2**64 - 1, "negative": -42, "ratio": 0.25,
    "limits": [{"weekday": 3600, "weekend": 7200, "enabled": True},
               {"curfew": {"start": "21:00:00", "end": "07:00:00"}}],
    "since": datetime.datetime(1969, 7, 20, 20, 17, 40),
    "digest": b"\x00\x01\xfe\xff", "empty": b"", "blank": "", "unicode": "Zo\u00eb \U0001F419",
}
mode, path = sys.argv[1], sys.argv[2]
if mode == "check":
    with open(path, "rb") as f:
        sys.exit(0 if plistlib.load(f) == value else 1)
with open(path, "wb") as f:
    plistlib.dump(value, f, fmt=plistlib.FMT_XML if mode == "xml" else plistlib.FMT_BINARY)
)";

int plistlib(const std::string& mode, const std::string& path) {
  return gwtest::runProgram({GATEWISE_TEST_PYTHON3, "-c", kPlistlibScript, mode, path}).status;
}

std::string read(const std::string& path) { return gw::fs::readFile(path, 1 << 20).value_or(""); }

bool isOneErrorLine(const RunResult& r) {
  return r.err.rfind("gatewise: ", 0) == 0 && r.err.find('\n') == r.err.size() - 1;
}

class CliPlistTest : public ::testing::Test {
 protected:
  gwtest::TempRoot root_;
};

TEST_F(CliPlistTest, ConvertsBothWaysAndPlistlibReadsWhatItWrites) {
  std::string xml = root_.at("/in.plist"), binary = root_.at("/out.bplist");
  std::string back = root_.at("/back.plist");
  ASSERT_EQ(plistlib("xml", xml), 0);
  RunResult toBinary = runCli({"plist", "convert", "--format", "binary", xml, binary});
  EXPECT_EQ(toBinary.status, 0) << toBinary.err;
  EXPECT_EQ(toBinary.out + toBinary.err, "");
  EXPECT_EQ(read(binary).substr(0, 8), "bplist00");
  EXPECT_EQ(plistlib("check", binary), 0);

  RunResult toXML = runCli({"plist", "convert", "--format", "xml", binary, back});
  EXPECT_EQ(toXML.status, 0) << toXML.err;
  EXPECT_EQ(read(back).substr(0, 5), "<?xml");
  EXPECT_EQ(plistlib("check", back), 0);
}

TEST_F(CliPlistTest, DashMeansStandardInputAndOutput) {
  std::string binary = root_.at("/in.bplist"), piped = root_.at("/piped.plist");
  ASSERT_EQ(plistlib("binary", binary), 0);
  RunResult r = runCli({"plist", "convert", "--format", "xml", "-", "-"}, {.input = read(binary)});
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_TRUE(gw::fs::writeFileAtomically(piped, r.out));
  EXPECT_EQ(plistlib("check", piped), 0);
  // Standard input may be empty or garbage: a usage error, nothing on standard output.
  RunResult bad =
      runCli({"plist", "convert", "--format", "binary", "-", "-"}, {.input = "garbage"});
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.out, "");
  EXPECT_TRUE(isOneErrorLine(bad)) << bad.err;
}

TEST_F(CliPlistTest, PrintWritesTheRootValuesDescription) {
  std::string xml = root_.at("/in.plist");
  ASSERT_EQ(plistlib("xml", xml), 0);
  RunResult r = runCli({"plist", "print", xml});
  ASSERT_EQ(r.status, 0) << r.err;
  gw::plist::ReadResult value = gw::plist::readPropertyListFile(xml);
  ASSERT_TRUE(value) << value.error;
  EXPECT_EQ(r.out, gw::plist::description(*value.value) + "\n");
  EXPECT_NE(r.out.find("kim"), std::string::npos);
}

TEST_F(CliPlistTest, WriteFailureLeavesNoFileBehind) {
  std::string xml = root_.at("/in.plist");
  ASSERT_EQ(plistlib("xml", xml), 0);
  RunResult r = runCli({"plist", "convert", "--format", "xml", xml, root_.at("/no/out")});
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(isOneErrorLine(r)) << r.err;
  EXPECT_FALSE(gw::fs::exists(root_.at("/no")));
}

// Input that cannot be read fails before anything is written.
TEST(CliPlistUsageTest, UnreadableInputLeavesNoOutputFile) {
  gwtest::TempRoot root;
  std::string garbage = root.writeFile("/garbage.plist", "this is not a property list");
  std::string kept = root.writeFile("/kept.plist", "keep me");
  std::string fresh = root.at("/fresh.plist");
  for (const std::string& input : {garbage, root.at("/missing.plist"), root.makeFolder("/dir")}) {
    for (const std::string& output : {fresh, kept}) {
      RunResult r = runCli({"plist", "convert", "--format", "xml", input, output});
      EXPECT_EQ(r.status, 2) << input;
      EXPECT_TRUE(isOneErrorLine(r)) << r.err;
      EXPECT_NE(r.err.find(input), std::string::npos) << r.err;
    }
    EXPECT_EQ(runCli({"plist", "print", input}).status, 2);
  }
  EXPECT_FALSE(gw::fs::exists(fresh));
  EXPECT_EQ(read(kept), "keep me");
}

TEST(CliPlistUsageTest, BadUsageIsExitTwoWithOneLine) {
  gwtest::TempRoot root;
  std::vector<std::vector<std::string>> cases = {
      {},
      {"plist"},
      {"plist", "convert", "--format", "yaml", "a", "b"},
      {"plist", "convert", "a", "b"},
      {"plist", "convert", "--format", "xml", "a"},
      {"plist", "print"},
      {"no-such-command"},
  };
  for (const auto& args : cases) {
    RunResult r = runCli(args);
    EXPECT_EQ(r.status, 2) << (args.empty() ? "" : args.back());
    EXPECT_TRUE(isOneErrorLine(r)) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
