#include <gatewise/identity.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "support/macho_writer.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

struct CliRun {
  int status;
  std::string output;
};

// Runs the CLI with args; standard error follows standard output.
CliRun cli(const std::vector<std::string>& args) {
  gwtest::RunResult run = gwtest::runCli(args);
  return {run.status, run.out + run.err};
}

std::string hex(const std::uint8_t* bytes, std::uint32_t length) {
  std::string out;
  char two[3];
  for (std::uint32_t i = 0; i < length; ++i) {
    std::snprintf(two, sizeof two, "%02x", bytes[i]);
    out += two;
  }
  return out;
}

TEST(IdentityCliTest, IdentityPrintsTheRecordInHexAndFailsWithStatusTwo) {
  gwtest::TempRoot root;
  root.writeFile("/App/Contents/Info.plist", "<plist/>");
  root.writeFile("/App/Contents/skip/x", "x");
  std::uint8_t* record = nullptr;
  std::uint32_t length = 0;
  const char* excluded[] = {"Contents/skip", nullptr};
  ASSERT_EQ(IdentityCreateWithPath(root.at("/App").c_str(), excluded, &record, &length), 0);
  CliRun run = cli({"identity", root.at("/App"), "--exclude", "Contents/skip"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, hex(record, length) + "\n");
  std::free(record);
  EXPECT_EQ(cli({"identity"}).status, 2);
}

TEST(IdentityCliTest, UnprebindExitsWithItsResultAndMachoInfoDescribes) {
  using namespace gwtest::macho;
  gwtest::TempRoot root;
  Bytes prebound = writeImage({true, false, true}, Prebinding{});
  std::string in = root.writeFile("/lib.dylib", std::string(prebound.begin(), prebound.end()));
  CliRun info = cli({"macho", "info", in});
  EXPECT_EQ(info.status, 0);
  EXPECT_NE(info.output.find("ppc (big-endian, 32-bit) dynamic library, prebound"),
            std::string::npos)
      << info.output;
  EXPECT_NE(info.output.find("install name: /usr/lib/libfixture.B.dylib"), std::string::npos);
  EXPECT_NE(info.output.find("  /usr/local/lib/libother.dylib"), std::string::npos);

  std::string out = root.at("/out.dylib");
  EXPECT_EQ(cli({"unprebind", in, out}).status, 0);
  std::ifstream written(out, std::ios::binary);
  Bytes bytes((std::istreambuf_iterator<char>(written)), std::istreambuf_iterator<char>());
  EXPECT_EQ(bytes, writeImage({true, false, true}));
  EXPECT_EQ(cli({"unprebind", out, root.at("/again")}).status, 2);
  std::string junk = root.writeFile("/junk", "not mach-o");
  CliRun failed = cli({"unprebind", junk, root.at("/x")});
  EXPECT_EQ(failed.status, 1);
  EXPECT_NE(failed.output.find("not a Mach-O, fat or archive file"), std::string::npos);
}

}  // namespace
