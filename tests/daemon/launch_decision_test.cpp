// The daemon's launch decisions from a managed user's white list: by path, bundle folder, bundle
// identifier and nested records; the older form; hostile settings; signatures that no longer
// match; refused launches shown as status items.
#include <gatewise/launch.h>
#include <gatewise/plist.h>
#include <gatewise/signing.h>
#include <gatewise/status.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "daemon/manager.h"
#include "daemon/usage/usage_store.h"
#include "support/log_capture.h"
#include "support/temp_root.h"

namespace {

using gw::daemon::LaunchDecision;
using gw::plist::Value;

class LaunchDecisionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    passwd* pw = ::getpwuid(kUid);
    if (!pw) GTEST_SKIP() << "no user with uid 1";
    name_ = pw->pw_name;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root_.at("/no-bus")).c_str(), 1);
    ::setenv("XDG_DATA_HOME", root_.at("/home/data").c_str(), 1);
    gw::daemon::ManagerOptions options;
    options.serve = false;
    options.databasePath = gw::daemon::defaultUsageDatabasePath();
    options.clock = std::make_shared<gw::daemon::ManualClock>(gw::plist::Date::now());
    std::string error;
    manager_ = gw::daemon::Manager::create(std::move(options), &error);
    ASSERT_TRUE(manager_) << error;
  }
  void TearDown() override {
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    ::unsetenv("XDG_DATA_HOME");
  }

  void writeSettings(const char* domain, const Value& settings) {
    root_.writeFile("/Library/Managed Preferences/" + name_ + "/" + domain + ".plist",
                    *gw::plist::writePropertyList(settings, gw::plist::Format::XML));
  }
  void whiteList(std::initializer_list<Value> records) {
    writeSettings(
        kGWApplicationAccessDomain,
        Value::newDictionary({{"gatewiseEnabled", true}, {"whiteList", Value::newArray(records)}}));
  }
  // A bundle folder with an identifier and an executable; the executable's path.
  std::string bundle(const std::string& folder, const std::string& id) {
    root_.writeFile(folder + "/Contents/Info.plist",
                    "<plist><dict><key>CFBundleIdentifier</key><string>" + id +
                        "</string><key>CFBundleName</key><string>Game</string></dict></plist>");
    return root_.writeFile(folder + "/Contents/MacOS/main", "#!/bin/sh\n");
  }
  LaunchDecision decide(const std::string& path, uid_t uid = kUid) {
    return manager_->apps().decide(uid, path);
  }

  static constexpr uid_t kUid = 1;
  gwtest::TempRoot root_;
  gwtest::LogCapture log_{1};
  std::string name_;
  std::unique_ptr<gw::daemon::Manager> manager_;
};

TEST_F(LaunchDecisionTest, WhiteListMatchesByPathBundleAndIdentifierNestedIncluded) {
  std::string tool = root_.writeFile("/opt/tool", "#!/bin/sh\n");
  std::string other = root_.writeFile("/opt/other", "#!/bin/sh\n");
  std::string game = bundle("/Applications/Game.app", "org.example.game");
  std::string moved = bundle("/Users/x/Copy.app", "org.example.game");
  std::string helper = root_.writeFile("/Applications/Suite.app/Contents/Helpers/helper", "x");
  EXPECT_EQ(decide(other).reason, gw::kGWLaunchUnrestricted);  // no settings yet

  whiteList({Value::newDictionary({{"path", tool}}),
             Value::newDictionary(
                 {{"path", root_.at("/Applications/Game.app")}, {"bundleID", "org.example.game"}}),
             Value::newDictionary(
                 {{"path", root_.at("/Applications/Suite.app")},
                  {"subApps", Value::newArray({Value::newDictionary({{"path", helper}})})}})});
  struct Case {
    std::string path;
    bool allowed;
    std::int32_t reason;
  } cases[] = {
      {tool, true, gw::kGWLaunchWhiteListed},
      {game, true, gw::kGWLaunchWhiteListed},  // the bundle's executable
      {root_.at("/Applications/Game.app/"), true, gw::kGWLaunchWhiteListed},  // the folder
      {moved, true, gw::kGWLaunchWhiteListed},  // same identifier elsewhere
      {helper, true, gw::kGWLaunchNestedWhiteListed},
      {other, false, gw::kGWLaunchNotWhiteListed},
      {tool + "2", false, gw::kGWLaunchNotWhiteListed},
      {"/usr/bin/systemctl", true, gw::kGWLaunchAlwaysAllowedTool},
  };
  for (const Case& c : cases) {
    LaunchDecision d = decide(c.path);
    EXPECT_EQ(d.allowed, c.allowed) << c.path;
    EXPECT_EQ(d.reason, c.reason) << c.path;
  }
  EXPECT_EQ(decide(other, 0).reason, gw::kGWLaunchUnrestricted);  // root is never restricted
  EXPECT_TRUE(manager_->apps().hasRestrictions(kUid));

  // A changed file is read again.
  writeSettings(kGWApplicationAccessDomain, Value::newDictionary({{"gatewiseEnabled", false}}));
  EXPECT_TRUE(decide(other).allowed);
  EXPECT_FALSE(manager_->apps().hasRestrictions(kUid));
}

TEST_F(LaunchDecisionTest, OlderFormAndHostileSettingsNeverCrashAndFailOpenWhenUnreadable) {
  std::string tool = root_.writeFile("/opt/tool", "x");
  std::string other = root_.writeFile("/opt/other", "x");
  writeSettings(kGWOldApplicationAccessDomain,
                Value::newDictionary({{"ItemsList", Value::newArray({tool})}}));
  EXPECT_TRUE(decide(tool).allowed);
  EXPECT_EQ(decide(other).reason, gw::kGWLaunchNotWhiteListed);
  writeSettings(kGWOldApplicationAccessDomain,
                Value::newDictionary({{"DenyList", Value::newArray({tool})}}));
  EXPECT_EQ(decide(tool).reason, gw::kGWLaunchDenyListed);
  EXPECT_TRUE(decide(other).allowed);

  // Wrong types everywhere: skipped, and what remains decides.
  whiteList({Value(7), Value::newDictionary({{"path", 3}, {"bundleID", Value::newArray()}}),
             Value::newDictionary({{"path", tool}, {"subApps", "not an array"}})});
  EXPECT_TRUE(decide(tool).allowed);
  EXPECT_FALSE(decide(other).allowed);
  writeSettings(kGWApplicationAccessDomain,
                Value::newDictionary({{"gatewiseEnabled", true}, {"whiteList", "x"}}));
  EXPECT_EQ(decide(tool).reason, gw::kGWLaunchNotWhiteListed);
  // Records nested without end are cut off, not followed.
  Value deep = Value::newDictionary({{"path", other}});
  for (int i = 0; i < 50; ++i) {
    deep = Value::newDictionary({{"path", "/x"}, {"subApps", Value::newArray({deep})}});
  }
  whiteList({deep});
  EXPECT_FALSE(decide(other).allowed);

  // An unreadable current form hands over to the older one, and with none the gate fails open.
  std::string folder = "/Library/Managed Preferences/" + name_ + "/";
  root_.writeFile(folder + kGWApplicationAccessDomain + ".plist", "garbage");
  EXPECT_EQ(decide(tool).reason, gw::kGWLaunchDenyListed);
  ::unlink(root_.at(folder + kGWOldApplicationAccessDomain + ".plist").c_str());
  EXPECT_EQ(decide(other).reason, gw::kGWLaunchSettingsUnreadable);
  EXPECT_TRUE(decide(other).allowed);
  EXPECT_FALSE(manager_->apps().hasRestrictions(kUid));
}

TEST_F(LaunchDecisionTest, ARecordsRequirementRefusesAProgramChangedSinceItWasSigned) {
  std::string tool = root_.writeFile("/opt/tool", "#!/bin/sh\necho hello\n");
  root_.makeFolder("/tmp");
  std::optional<gw::plist::Data> signature;
  ASSERT_TRUE(GWCreateAppSignature(tool, nullptr, &signature, true));
  std::optional<gw::plist::Data> requirement =
      GWCreateDesignatedRequirement(tool, std::nullopt, signature);
  ASSERT_TRUE(requirement);
  whiteList({Value::newDictionary(
      {{"path", tool}, {"appID", *requirement}, {"detachedSignature", *signature}})});
  EXPECT_EQ(decide(tool).reason, gw::kGWLaunchWhiteListed);

  root_.writeFile("/opt/tool", "#!/bin/sh\necho hellO\n");
  LaunchDecision d = decide(tool);
  EXPECT_FALSE(d.allowed);
  EXPECT_EQ(d.reason, gw::kGWLaunchSignatureMismatch);
  EXPECT_EQ(manager_->apps().detachedSignatureChanged(kUid, tool), gw::kGWLaunchSignatureMismatch);
}

TEST_F(LaunchDecisionTest, ARefusedLaunchIsShownAsABlacklistedItemForAMinute) {
  std::string game = bundle("/Applications/Game.app", "org.example.game");
  whiteList({});
  LaunchDecision d = decide(game);
  ASSERT_FALSE(d.allowed);
  EXPECT_TRUE(manager_->statusItems(kUid).empty());
  manager_->apps().launchBlocked(kUid, game, d);
  std::vector<gw::daemon::StatusItemInfo> items = manager_->statusItems(kUid);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].statusKind, gw::kGWStatusKindBlacklisted);
  EXPECT_EQ(items[0].itemName, "Game");
  EXPECT_EQ(items[0].itemKind, gw::kGWItemKindProgram);
  EXPECT_TRUE(log_.contains("refused (reason 3)"));
  EXPECT_TRUE(manager_->statusItems(2).empty());  // someone else's

  gw::plist::Date later{manager_->now().secondsSinceReferenceDate +
                        gw::daemon::kBlockedItemSeconds};
  std::vector<gw::daemon::StatusItemInfo> none;
  manager_->apps().addStatusItems(kUid, later, none);
  EXPECT_TRUE(none.empty());
}

}  // namespace
