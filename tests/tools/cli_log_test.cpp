// gatewise log as a black box: the line written to standard error with --log-stderr.
#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include <string>

#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gwtest::runCli;
using gwtest::RunResult;

TEST(CliLogTest, WritesOneLineAsItIsAtOrBelowTheThreshold) {
  gwtest::TempRoot root;
  RunResult r = runCli(
      {"--log-stderr", "--log-level", "1", "log", "1", "GWUserCanLogin", "42", "100% sure %d %@"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "GWUserCanLogin [42] -- 100% sure %d %@\n");
  EXPECT_EQ(runCli({"--log-stderr", "--log-level", "1", "log", "2", "f", "1", "trace"}).err, "");
  EXPECT_EQ(runCli({"--log-stderr", "--log-level=-2", "log", "0", "f", "1", "x"}).err, "");
  EXPECT_EQ(runCli({"--log-stderr", "log", "0", "", "7", "Enter"}).err, "unknown [7] -- Enter\n");
  // No preference below the root: the threshold is 0.
  EXPECT_EQ(runCli({"--root", root.path(), "--log-stderr", "log", "1", "f", "1", "m"}).err, "");
  EXPECT_EQ(runCli({"--log-stderr", "log", "level", "f", "1", "m"}).status, 2);
}

TEST(CliLogTest, ThresholdComesFromThePreferenceBelowTheRoot) {
  gwtest::TempRoot root;
  root.writeFile("/Library/Preferences/com.morvane.Gatewise.plist",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n"
                 "<dict><key>logLevel</key><string>2</string></dict></plist>\n");
  EXPECT_EQ(runCli({"--root", root.path(), "--log-stderr", "log", "2", "f", "3", "m"}).err,
            "f [3] -- m\n");
  EXPECT_EQ(runCli({"--root", root.path(), "--log-stderr", "log", "3", "f", "3", "m"}).err, "");
}

}  // namespace
