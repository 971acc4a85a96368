// The library's launch checks: the restriction look-up and its cache, the always-allowed tools,
// and the questions to the daemon, with the daemon down and with a test daemon.
#include <gatewise/core.h>
#include <gatewise/launch.h>
#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gw::plist::Value;

class LaunchChecksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The per-user cache outlives tests: start each from an empty one.
    QRMSettingsChangedCallback();
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root_.at("/no-bus")).c_str(), 1);
  }
  void TearDown() override { ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

  // Managed settings of root (uid 0) in domain.
  void writeSettings(const char* domain, const Value& settings) {
    root_.writeFile(std::string("/Library/Managed Preferences/root/") + domain + ".plist",
                    *gw::plist::writePropertyList(settings, gw::plist::Format::XML));
  }

  gwtest::TempRoot root_;
  gwtest::LogCapture log_{3};
};

TEST_F(LaunchChecksTest, RestrictionsAreReadAfreshOnEveryCallAsTheCacheKeyNeverMatches) {
  writeSettings(kGWApplicationAccessDomain, Value::newDictionary({{"gatewiseEnabled", true}}));
  EXPECT_TRUE(GWHasAppLaunchRestrictions(0));
  EXPECT_TRUE(log_.contains("whiteListEnabled: Yes"));
  EXPECT_TRUE(log_.contains("returning YES for uid 0"));
  {
    std::lock_guard<gw::SpinLock> hold(gGWALRLock);
    gw::plist::DictionaryRef cached = CachedUserDictionaryForUID(0);
    EXPECT_TRUE(cached->get("gatewiseEnabled").boolValue());
    EXPECT_EQ(cached->get("userName"), Value("root"));
    EXPECT_FALSE(cached->contains("hasALR"));
  }
  // The stored answer does not serve the second call: the changed file does.
  writeSettings(kGWApplicationAccessDomain, Value::newDictionary({{"gatewiseEnabled", false}}));
  EXPECT_FALSE(GWHasAppLaunchRestrictions(0));
  EXPECT_FALSE(log_.contains("Returning cached value"));

  // Only a value under "hasALR" would be answered from the cache.
  {
    std::lock_guard<gw::SpinLock> hold(gGWALRLock);
    CachedUserDictionaryForUID(0)->set("hasALR", true);
  }
  EXPECT_TRUE(GWHasAppLaunchRestrictions(0));
  EXPECT_TRUE(log_.contains("Returning cached value of 1"));
}

TEST_F(LaunchChecksTest, CurrentFormWinsAndTheOlderFormCountsAnyListItHas) {
  EXPECT_FALSE(GWHasAppLaunchRestrictions(0));  // no files at all
  writeSettings(kGWOldApplicationAccessDomain,
                Value::newDictionary({{"DenyList", Value::newArray()}}));
  EXPECT_TRUE(GWHasAppLaunchRestrictions(0));  // an empty list still means restrictions
  writeSettings(kGWOldApplicationAccessDomain, Value::newDictionary({{"Other", 1}}));
  EXPECT_FALSE(GWHasAppLaunchRestrictions(0));
  writeSettings(kGWOldApplicationAccessDomain,
                Value::newDictionary({{"ItemsList", Value::newArray({"/usr/bin/true"})}}));
  writeSettings(kGWApplicationAccessDomain, Value::newDictionary({{"gatewiseEnabled", false}}));
  EXPECT_FALSE(GWHasAppLaunchRestrictions(0));
  // An unreadable current form hands over to the older one.
  root_.writeFile("/Library/Managed Preferences/root/com.morvane.applicationaccess.new.plist",
                  "<plist><dict><key>broken");
  EXPECT_TRUE(GWHasAppLaunchRestrictions(0));
}

TEST_F(LaunchChecksTest, WithTheDaemonDownToolsAreAllowedWithTenAndEverythingElseWithEight) {
  for (const std::string& tool : GWAlwaysAllowedLaunchTools()) {
    std::int32_t reason = -1;
    EXPECT_TRUE(GWIsAppAllowedToLaunch(tool.c_str(), 0, &reason)) << tool;
    EXPECT_EQ(reason, gw::kGWLaunchAlwaysAllowedTool) << tool;
  }
  EXPECT_EQ(GWAlwaysAllowedLaunchTools().size(), 5u);
  EXPECT_FALSE(log_.contains("tud port was 0"));  // tools never reach the daemon

  std::int32_t reason = -1;
  EXPECT_TRUE(GWIsAppAllowedToLaunch("/usr/bin/systemctl-not", 0, &reason));
  EXPECT_EQ(reason, gw::kGWLaunchDaemonNotAsked);
  EXPECT_TRUE(log_.contains("*** tud port was 0, allowing app"));
  GWAppLaunchWasBlocked("/usr/bin/true", 1);  // nothing to send to, nothing to fail
}

TEST_F(LaunchChecksTest, TheDaemonsAnswerAndReasonArePassedThrough) {
  gwtest::TestDaemon daemon;
  daemon.answer("_GWMIGAppCanLaunch", {0, gw::kGWLaunchNotWhiteListed});
  std::int32_t reason = -1;
  EXPECT_FALSE(GWIsAppAllowedToLaunch("/opt/game", 7, &reason));
  EXPECT_EQ(reason, gw::kGWLaunchNotWhiteListed);
  EXPECT_TRUE(log_.contains("*** launch of /opt/game denied ***"));

  daemon.answer("_GWMIGAppCanLaunch", {1, gw::kGWLaunchWhiteListed});
  EXPECT_TRUE(GWIsAppAllowedToLaunchExt("/opt/editor", 3, 9, &reason));
  EXPECT_EQ(reason, gw::kGWLaunchWhiteListed);
  EXPECT_TRUE(log_.contains("launch of /opt/editor allowed"));

  GWAppLaunchWasBlocked("/opt/game", 7);
  ASSERT_TRUE(daemon.waitForRequests(3));
  std::vector<gwtest::ReceivedRequest> got = daemon.received();
  ASSERT_EQ(got.size(), 3u);
  auto text = [](const std::vector<std::uint8_t>& b) { return std::string(b.begin(), b.end()); };
  EXPECT_EQ(text(got[0].bytes[0]), "/opt/game");
  EXPECT_EQ(got[0].integers[1], 7);
  EXPECT_EQ(got[0].integers[2], 4);  // GWIsAppAllowedToLaunch's fixed second integer
  EXPECT_EQ(got[1].integers[1], 3);
  EXPECT_EQ(got[1].integers[2], 9);
  EXPECT_EQ(got[2].routine, "_GWMIGAppLaunchBlocked");
  EXPECT_EQ(got[2].integers[1], 7);
  EXPECT_EQ(got[2].integers[2], 0);

  // A daemon that dies mid-exchange lets the launch through.
  daemon.misbehave("_GWMIGAppCanLaunch", gwtest::Misbehaviour::CloseWithoutReply);
  EXPECT_TRUE(GWIsAppAllowedToLaunch("/opt/game", 0, &reason));
  EXPECT_EQ(reason, gw::kGWLaunchDaemonNotAsked);
  EXPECT_TRUE(log_.contains("*** _GWMIGAppCanLaunch failed with error -308."));
}

TEST_F(LaunchChecksTest, CommandLineAnswersWithExitStatusAndRefusesBadInput) {
  gwtest::RunOptions options;
  options.environment = {{"GATEWISE_ROOT", root_.path()}};
  writeSettings(kGWApplicationAccessDomain, Value::newDictionary({{"gatewiseEnabled", true}}));
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
  } cases[] = {
      {{"launch-restrictions", "root"}, 0, "yes\n"},
      {{"launch-restrictions", "0"}, 0, "yes\n"},
      {{"launch-restrictions", "no-such-user-here"}, 2, ""},
      {{"launch-check", "/usr/sbin/rmmod"}, 0, "allowed reason=10\n"},
      {{"launch-check", "/opt/game", "--first", "3"}, 0, "allowed reason=8\n"},
      {{"launch-check", "game"}, 2, ""},
      {{"launch-check", "/opt/game", "--second", "x"}, 2, ""},
  };
  for (const Case& c : cases) {
    gwtest::RunResult run = gwtest::runCli(c.args, options);
    EXPECT_EQ(run.status, c.status) << c.args[1] << run.err;
    EXPECT_EQ(run.out, c.out) << c.args[1];
    if (c.status == 2) {
      EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1);
    }
  }
  writeSettings(kGWApplicationAccessDomain, Value::newDictionary({{"gatewiseEnabled", false}}));
  gwtest::RunResult run = gwtest::runCli({"launch-restrictions", "root"}, options);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "no\n");
}

}  // namespace
