// Login questions answered from what the last decision was made from: the answer must be the one a
// fresh decision gives, whatever changed in between (files rewritten or appearing in folders that
// did not exist, time moving on within the reuse window, the user starting to count).
#include <gatewise/plist.h>
#include <gtest/gtest.h>
#include <pwd.h>

#include <filesystem>

#include "daemon/decision/day.h"
#include "daemon/manager.h"
#include "daemon_test_support.h"
#include "support/log_capture.h"
#include "support/temp_root.h"
#include "support/time_zone.h"

namespace {

using gw::daemon::Manager;
using gw::daemon::ManualClock;
using gw::daemon::SessionMonitor;
using gw::daemon::UserSessions;
using gwtest::daemon::local;
using gwtest::daemon::timeLimits;

class NoSessions final : public SessionMonitor {
 public:
  UserSessions sessionsOf(uid_t) const override { return {}; }
  std::vector<uid_t> users() const override { return {}; }
};

class DecisionReuseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    passwd* pw = ::getpwuid(kUid);
    if (!pw) GTEST_SKIP() << "no user with uid 1";
    name_ = pw->pw_name;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root_.at("/no-bus")).c_str(), 1);
  }
  void TearDown() override { ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

  void writeLimits(const gw::plist::Value& prefs) {
    root_.writeFile(
        "/Library/Managed Preferences/" + name_ + "/com.morvane.gatewise.timelimits.plist",
        *gw::plist::writePropertyList(prefs, gw::plist::Format::XML));
  }
  void start(gw::plist::Date at) {
    clock_ = std::make_shared<ManualClock>(at);
    gw::daemon::ManagerOptions options;
    options.serve = false;
    options.clock = clock_;
    options.databasePath = gw::daemon::defaultUsageDatabasePath();
    options.makeMonitor = [](sd_event*, SessionMonitor::Listener) {
      return std::make_unique<NoSessions>();
    };
    options.postLoginStatusChanged = [](const std::string&) {};
    std::string error;
    manager_ = Manager::create(std::move(options), &error);
    ASSERT_TRUE(manager_) << error;
  }
  int secondsNow() { return manager_->loginDecision(kUid).seconds(clock_->wallNow()); }

  static constexpr uid_t kUid = 1;
  gwtest::TempRoot root_;
  gwtest::ScopedTimeZone zone_{"Europe/Berlin"};
  gwtest::LogCapture log_{1};
  std::string name_;
  std::shared_ptr<ManualClock> clock_;
  std::unique_ptr<Manager> manager_;
};

TEST_F(DecisionReuseTest, ChangedFilesAreSeenByTheNextQuestionWithoutBeingToldOrWaiting) {
  writeLimits(timeLimits({}, {{7200, 0, 6}}));
  start(local(2026, 1, 5, 10, 0));
  EXPECT_EQ(secondsNow(), 7200);
  EXPECT_EQ(secondsNow(), 7200);  // not counting: the allowance left stays whole

  writeLimits(timeLimits({}, {{3600, 0, 6}}));
  EXPECT_EQ(secondsNow(), 3600);

  // A grant in the user's daemon folder, which does not exist yet.
  std::string day = gw::daemon::dayKeyOf(clock_->wallNow());
  root_.writeFile("/Library/Application Support/Morvane/Tutela/Users/" + name_ +
                      "/com.morvane.gatewise.overrides.plist",
                  "<plist><dict><key>__COMPUTER__</key><dict><key>" + day +
                      "</key><array><dict><key>duration</key><integer>600</integer>"
                      "<key>expired</key><false/></dict></array></dict></dict></plist>");
  EXPECT_EQ(secondsNow(), 4200);

  // A curfew stops use outside the grant at its start: the time left (the grant's ten minutes
  // included) shrinks as the clock moves, within the reuse window and past it; past the curfew's
  // start (the wake) only the grant is left, and without it a refusal.
  writeLimits(timeLimits({{"monday", "10:30:00", "23:59:59"}}, {{7200, 0, 6}}));
  EXPECT_EQ(secondsNow(), 2400);
  clock_->advance(0.5);
  EXPECT_EQ(secondsNow(), 2400);  // 2399.5 rounds up
  clock_->advance(600);
  EXPECT_EQ(secondsNow(), 1800);
  clock_->advance(1200);
  EXPECT_EQ(secondsNow(), 600);  // inside the curfew only the grant is left
  std::filesystem::remove(root_.at("/Library/Application Support/Morvane/Tutela/Users/" + name_ +
                                   "/com.morvane.gatewise.overrides.plist"));
  EXPECT_EQ(manager_->loginDecision(kUid).reason, gw::kGWLoginCurfew);

  // The file removed: no limits at all.
  std::filesystem::remove(
      root_.at("/Library/Managed Preferences/" + name_ + "/com.morvane.gatewise.timelimits.plist"));
  EXPECT_EQ(manager_->loginDecision(kUid).reason, gw::kGWLoginAllowed);
  EXPECT_EQ(secondsNow(), 0);
}

}  // namespace
