// Program and group time limits: which items are in force, which running programs they cover, and
// the manager counting, warning and ending them with a manual clock and processes fed by the test.
#include <gatewise/plist.h>
#include <gatewise/status.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>

#include <map>
#include <tuple>

#include "daemon/decision/day.h"
#include "daemon/manager.h"
#include "daemon/programs/program_limits.h"
#include "daemon_test_support.h"
#include "support/log_capture.h"
#include "support/temp_root.h"
#include "support/time_zone.h"

namespace {

using gw::daemon::Manager;
using gw::daemon::ManualClock;
using gw::daemon::parseProgramLimits;
using gw::daemon::SessionMonitor;
using gw::daemon::UserSessions;
using gw::plist::Value;
using gwtest::daemon::local;

Value appRecord(const std::string& path, const std::string& bundleID = "") {
  auto record = gw::plist::Dictionary::make();
  if (!path.empty()) record->set("path", path);
  if (!bundleID.empty()) record->set("bundleID", bundleID);
  return Value(record);
}

Value item(std::string_view type, const std::string& id, int allowanceSeconds,
           std::vector<Value> apps, bool enabled = true) {
  bool isProgram = type == gw::kGWLimitTypeProgram;
  auto d = Value::newDictionary(
      {{"itemType", std::string(type)},
       {"name", "Item " + id},
       {isProgram ? "bundleID" : "groupID", id},
       {"enabled", enabled},
       {"allowancesActive", true},
       {"allowances",
        Value::newArray({Value::newDictionary(
            {{"timeLimitSeconds", allowanceSeconds}, {"fromDay", 0}, {"toDay", 6}})})},
       {"appList", Value(gw::plist::Array::make(std::move(apps)))}});
  return d;
}

Value preference(std::vector<Value> items) {
  return Value::newDictionary({{"limits-list", Value(gw::plist::Array::make(std::move(items)))}});
}

TEST(ProgramLimitsTest, EnabledProgramAndGroupItemsWithTheirProgramsAreInForce) {
  Value badCurfews = item(gw::kGWLimitTypeGroup, "bad", 60, {appRecord("/usr/bin/b")});
  badCurfews.dictionary()->set("curfews", "every evening");
  auto parsed = parseProgramLimits(preference({
      item(gw::kGWLimitTypeProgram, "org.example.game", 600, {appRecord("/opt/Game.app")}),
      item(gw::kGWLimitTypeGroup, "G1", 1200,
           {appRecord("/usr/games/a"), appRecord("", "org.example.b")}),
      item(gw::kGWLimitTypeGroup, "off", 60, {appRecord("/usr/bin/c")}, false), badCurfews,
      item(gw::kGWLimitTypeGroup, "G1", 300, {appRecord("/usr/games/z")}),  // replaces the first
  }));
  ASSERT_EQ(parsed.limits.size(), 2u);
  EXPECT_EQ(parsed.limits[0].id, "org.example.game");
  EXPECT_EQ(parsed.limits[0].itemKind, gw::kGWLimitTypeProgram);
  ASSERT_EQ(parsed.limits[0].programs.size(), 2u);  // its record and its own bundle identifier
  EXPECT_EQ(parsed.limits[1].id, "G1");
  EXPECT_EQ(parsed.limits[1].limit.allowances.at(0).seconds, 300);
  ASSERT_EQ(parsed.problems.size(), 1u);
  EXPECT_NE(parsed.problems[0].find("\"Item bad\""), std::string::npos);

  const auto& game = parsed.limits[0].programs;
  gw::daemon::ProgramBundle bare{"", "", "x"};
  gw::daemon::ProgramBundle inBundle{"/opt/Game.app", "", "Game"};
  gw::daemon::ProgramBundle byID{"/elsewhere/Copy.app", "org.example.game", "Copy"};
  EXPECT_FALSE(gw::daemon::programMatches(game, "/opt/Game", bare));
  EXPECT_TRUE(gw::daemon::programMatches(game, "/opt/Game.app/Contents/MacOS/Game", inBundle));
  EXPECT_TRUE(gw::daemon::programMatches(game, "/elsewhere/Copy.app/Contents/MacOS/x", byID));
}

class FakeMonitor final : public SessionMonitor {
 public:
  explicit FakeMonitor(Listener listener) : listener_(std::move(listener)) {}
  UserSessions sessionsOf(uid_t uid) const override {
    auto it = sessions_.find(uid);
    return it == sessions_.end() ? UserSessions{} : it->second;
  }
  std::vector<uid_t> users() const override {
    std::vector<uid_t> out;
    for (const auto& [uid, s] : sessions_) out.push_back(uid);
    return out;
  }
  void set(uid_t uid, bool counting) {
    sessions_[uid] = {true, counting};
    listener_(uid);
  }

 private:
  Listener listener_;
  std::map<uid_t, UserSessions> sessions_;
};

class ProgramTimesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    passwd* pw = ::getpwuid(kUid);
    if (!pw) GTEST_SKIP() << "no user with uid 1";
    name_ = pw->pw_name;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root_.at("/no-bus")).c_str(), 1);
  }
  void TearDown() override { ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

  void start(gw::plist::Date at, const Value& prefs) {
    root_.writeFile(
        "/Library/Managed Preferences/" + name_ + "/com.morvane.gatewise.timelimits.plist",
        *gw::plist::writePropertyList(prefs, gw::plist::Format::XML));
    clock_ = std::make_shared<ManualClock>(at);
    gw::daemon::ManagerOptions options;
    options.serve = false;
    options.clock = clock_;
    options.databasePath = gw::daemon::defaultUsageDatabasePath();
    options.makeMonitor = [this](sd_event*, SessionMonitor::Listener listener) {
      auto monitor = std::make_unique<FakeMonitor>(std::move(listener));
      monitor_ = monitor.get();
      return monitor;
    };
    options.makeActions = [](sd_event*) { return nullptr; };
    options.postLoginStatusChanged = [](const std::string&) {};
    options.signalProgram = [this](pid_t pid, uid_t uid, const std::string&, int signal) {
      signals_.emplace_back(pid, uid, signal);
      return true;
    };
    std::string error;
    manager_ = Manager::create(std::move(options), &error);
    ASSERT_TRUE(manager_) << error;
  }

  void advanceTo(gw::plist::Date at) {
    clock_->advance(at.secondsSinceReferenceDate - clock_->wallNow().secondsSinceReferenceDate);
    manager_->refresh();
  }

  std::vector<std::string> items() {
    std::vector<std::string> out;
    for (const auto& info : manager_->statusItems(kUid)) {
      out.push_back(info.itemID + " " + info.statusKind + " " + info.itemKind);
    }
    return out;
  }

  static constexpr uid_t kUid = 1;
  gwtest::TempRoot root_;
  gwtest::ScopedTimeZone zone_{"Europe/Berlin"};
  gwtest::LogCapture log_{1};
  std::string name_;
  std::shared_ptr<ManualClock> clock_;
  std::unique_ptr<Manager> manager_;
  FakeMonitor* monitor_ = nullptr;
  std::vector<std::tuple<pid_t, uid_t, int>> signals_;
};

TEST_F(ProgramTimesTest, AProgramIsWarnedEndedAndKilledWhenItsAllowanceRunsOut) {
  const std::string program = std::string(gw::kGWLimitTypeProgram);
  start(local(2026, 11, 23, 10, 0),
        preference({item(gw::kGWLimitTypeProgram, "game", 600, {appRecord("/usr/games/game")})}));
  monitor_->set(kUid, true);
  EXPECT_FALSE(manager_->nextWake());  // nothing limited runs: nothing to wait for
  manager_->programs().execed(100, kUid, "/usr/games/game");
  manager_->programs().execed(101, kUid, "/usr/bin/editor");
  ASSERT_TRUE(manager_->nextWake());
  EXPECT_EQ(*manager_->nextWake(), local(2026, 11, 23, 10, 10));

  // Idle time is not counted: ten idle minutes move the end by ten minutes.
  monitor_->set(kUid, false);
  advanceTo(local(2026, 11, 23, 10, 10));
  monitor_->set(kUid, true);
  EXPECT_EQ(*manager_->nextWake(), local(2026, 11, 23, 10, 20));

  advanceTo(local(2026, 11, 23, 10, 16, 30));
  EXPECT_EQ(items(), std::vector<std::string>{"program-game-warning-4 "
                                              "GatewiseStatusKindTerminationWarning " +
                                              program});
  EXPECT_TRUE(signals_.empty());

  advanceTo(local(2026, 11, 23, 10, 20));
  ASSERT_EQ(signals_.size(), 1u);
  EXPECT_EQ(signals_[0], std::make_tuple(pid_t(100), kUid, SIGTERM));
  EXPECT_EQ(items(), std::vector<std::string>{"program-game-end "
                                              "GatewiseStatusKindAllowanceExceeded " +
                                              program});
  EXPECT_EQ(manager_->programTimes().usageOn(kUid, "game", "2026-11-23").used, 600);

  // Still there after the check: the could-not-quit grace, then SIGKILL.
  EXPECT_EQ(*manager_->nextWake(), local(2026, 11, 23, 10, 20, 5));
  advanceTo(local(2026, 11, 23, 10, 20, 5));
  auto shown = manager_->statusItems(kUid);
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown[1].statusKind, gw::kGWStatusKindCouldNotQuit);
  EXPECT_EQ(shown[1].expires, local(2026, 11, 23, 10, 21, 5));
  EXPECT_EQ(signals_.size(), 1u);
  advanceTo(local(2026, 11, 23, 10, 21, 5));
  ASSERT_EQ(signals_.size(), 2u);
  EXPECT_EQ(signals_[1], std::make_tuple(pid_t(100), kUid, SIGKILL));

  // Gone: no alerts; started again the same day: told to quit at once.
  manager_->programs().exited(100);
  EXPECT_TRUE(items().empty());
  manager_->programs().execed(102, kUid, "/usr/games/game");
  ASSERT_EQ(signals_.size(), 3u);
  EXPECT_EQ(signals_[2], std::make_tuple(pid_t(102), kUid, SIGTERM));

  // The next day brings a new allowance.
  manager_->programs().exited(102);
  advanceTo(local(2026, 11, 24, 9, 0));
  manager_->programs().execed(103, kUid, "/usr/games/game");
  EXPECT_EQ(signals_.size(), 3u);
  EXPECT_EQ(*manager_->nextWake(), local(2026, 11, 24, 9, 10));
}

TEST_F(ProgramTimesTest, AGroupCountsOnceWhileAnyOfItsProgramsRuns) {
  start(local(2026, 11, 23, 10, 0),
        preference({item(gw::kGWLimitTypeGroup, "G", 3600,
                         {appRecord("/usr/games/a"), appRecord("/usr/games/b")})}));
  monitor_->set(kUid, true);
  manager_->programs().execed(200, kUid, "/usr/games/a");
  manager_->programs().execed(201, kUid, "/usr/games/b");
  advanceTo(local(2026, 11, 23, 10, 20));
  manager_->programs().exited(200);
  advanceTo(local(2026, 11, 23, 10, 30));
  manager_->programs().exited(201);
  advanceTo(local(2026, 11, 23, 11, 0));
  EXPECT_EQ(manager_->programTimes().usageOn(kUid, "G", "2026-11-23").used, 1800);
  // Another user's processes are not this user's programs.
  manager_->programs().execed(300, kUid + 1, "/usr/games/a");
  advanceTo(local(2026, 11, 23, 11, 30));
  EXPECT_EQ(manager_->programTimes().usageOn(kUid, "G", "2026-11-23").used, 1800);

  // The clock set two hours ahead after five minutes of play: five minutes are counted.
  manager_->programs().execed(201, kUid, "/usr/games/b");
  clock_->advance(300);
  clock_->set(local(2026, 11, 23, 13, 35));
  manager_->clockJumped();
  manager_->programs().exited(201);
  EXPECT_EQ(manager_->programTimes().usageOn(kUid, "G", "2026-11-23").used, 2100);
  advanceTo(local(2026, 11, 23, 13, 40));

  // Kept across a restart of the daemon, counting to the moment it stopped.
  manager_->programs().execed(202, kUid, "/usr/games/b");
  advanceTo(local(2026, 11, 23, 13, 50));
  manager_.reset();
  start(local(2026, 11, 23, 14, 0),
        preference({item(gw::kGWLimitTypeGroup, "G", 3600, {appRecord("/usr/games/a")})}));
  EXPECT_EQ(manager_->programTimes().usageOn(kUid, "G", "2026-11-23").used, 2700);
}

}  // namespace
