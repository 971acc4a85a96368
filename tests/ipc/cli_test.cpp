// The daemon commands of the gatewise tool, run as a program against the test daemon.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>

#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gwtest::TestDaemon;

using gwtest::runCli;
using gwtest::RunResult;

class CliTest : public ::testing::Test {
 protected:
  gwtest::TempRoot root_;
};

TEST_F(CliTest, WithoutDaemon) {
  RunResult run = runCli({"can-login", "501"});
  EXPECT_EQ(run.out, "allowed reason=4\n");
  EXPECT_EQ(run.status, 0);
  run = runCli({"daemon-status"});
  EXPECT_EQ(run.out, "not running\n");
  EXPECT_EQ(run.status, 1);
  run = runCli({"fcd", "read-settings", "501"});
  EXPECT_EQ(run.out, "status=1102\n");
  EXPECT_EQ(run.status, 1);
  run = runCli({"ipc", "call", "_GWMIGUserCanLogin", "501"});
  EXPECT_EQ(run.out, "status=268435459\n");  // sent to port 0: invalid destination
  EXPECT_EQ(run.status, 1);
  run = runCli({"managed-users-exist"});
  EXPECT_EQ(run.out, "no\n");
  root_.makeFolder("/Library/Managed Preferences");
  EXPECT_EQ(runCli({"managed-users-exist"}).out, "yes\n");
}

TEST_F(CliTest, CanLoginPrintsTheDateInLocalTimeWithItsOffset) {
  TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {900, 2});
  RunResult run = runCli({"can-login", "0"}, {.environment = {{"TZ", "XYZ-1"}}});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(std::regex_match(
      run.out, std::regex(R"(denied reason=2 until=\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+01:00\n)")))
      << run.out;
  EXPECT_TRUE(
      std::regex_search(runCli({"can-login", "root"}, {.environment = {{"TZ", "UTC0"}}}).out,
                        std::regex(R"(until=.*\+00:00\n$)")));
  EXPECT_EQ(daemon.received().back().integers[0], 0);
  daemon.answer("_GWMIGUserCanLogin", {0, 0});
  run = runCli({"can-login", "501"});
  EXPECT_EQ(run.out, "allowed reason=0\n");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(runCli({"can-login", "no-such-user-here"}).status, 2);
  EXPECT_EQ(runCli({"daemon-status"}).out, "running\n");
}

TEST_F(CliTest, FcdCommandsSendTheirMessages) {
  TestDaemon daemon;
  EXPECT_EQ(runCli({"fcd", "read-overrides", "501"}).out, "status=0\n");
  EXPECT_EQ(runCli({"fcd", "reset-usage", "502"}).out, "status=0\n");
  EXPECT_EQ(runCli({"fcd", "listening-changed"}).out, "status=0\n");
  ASSERT_TRUE(daemon.waitForRequests(3));
  auto got = daemon.received();
  EXPECT_EQ(got[0].routine, "_GWMIGReadOverrides");
  EXPECT_EQ(got[0].integers[0], 501);
  EXPECT_EQ(got[1].routine, "_GWMIGResetUsageData");
  EXPECT_EQ(got[2].routine, "_GWMIGListeningStatusChanged");
}

TEST_F(CliTest, IpcCallTakesFieldsInArgumentOrderAndPrintsOutFields) {
  TestDaemon daemon;
  daemon.answer("_GWMIGAppCanLaunch", {1, 9});
  std::string file = root_.writeFile("/path.txt", "/Applications/Chess");
  RunResult run = runCli({"ipc", "call", "_GWMIGAppCanLaunch", "@" + file, "-3", "4"});
  EXPECT_EQ(run.out, "status=0\nresult=1\nreason=9\n");
  EXPECT_EQ(run.status, 0);
  auto got = daemon.received().back();
  EXPECT_EQ(std::string(got.bytes[0].begin(), got.bytes[0].end()), "/Applications/Chess");
  EXPECT_EQ(got.integers[1], -3);
  EXPECT_EQ(got.integers[2], 4);

  daemon.answerData("_GWMIGGetStatusItems", {'a', 'r', 'c'});
  std::string out = root_.at("/items.bin");
  run = runCli({"ipc", "call", "_GWMIGGetStatusItems", "--out", out});
  EXPECT_EQ(run.out, "status=0\ndata=<3 bytes>\n");
  std::ifstream in(out);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "arc");

  std::size_t before = daemon.received().size();
  EXPECT_EQ(runCli({"ipc", "call", "_GWMIGRegisterUserAgent", "3", "-"}).out, "status=0\n");
  // One-way: the CLI may exit before the daemon has read the message.
  ASSERT_TRUE(daemon.waitForRequests(before + 1));
  EXPECT_EQ(daemon.received().back().routine, "_GWMIGRegisterUserAgent");

  daemon.answerError("_GWMIGHasAppLaunchRestrictions", -7);
  run = runCli({"ipc", "call", "_GWMIGHasAppLaunchRestrictions", "1"});
  EXPECT_EQ(run.out, "status=-7\n");
  EXPECT_EQ(run.status, 1);
  run = runCli({"ipc", "call", "_GWMIGAppCanLaunch", std::string(1025, 'x'), "1", "4"});
  EXPECT_EQ(run.out, "status=-307\n");

  EXPECT_EQ(runCli({"ipc", "call", "_GWMIGUserCanLogin"}).status, 2);       // missing field
  EXPECT_EQ(runCli({"ipc", "call", "_GWMIGUserCanLogin", "x"}).status, 2);  // not a number
  EXPECT_EQ(runCli({"ipc", "call", "_GWMIGNoSuchRoutine", "1"}).status, 2);
}

}  // namespace
