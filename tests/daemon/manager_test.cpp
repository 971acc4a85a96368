// The manager driven by hand: a manual clock, a session monitor and end actions of the test's own,
// no socket. What it books, when it wakes, when and how it ends a user's time.
#include "daemon/manager.h"

#include <gatewise/plist.h>
#include <gtest/gtest.h>
#include <pwd.h>

#include <map>

#include "daemon/decision/day.h"
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

class FakeMonitor final : public SessionMonitor {
 public:
  explicit FakeMonitor(Listener listener) : listener_(std::move(listener)) {}
  UserSessions sessionsOf(uid_t uid) const override {
    auto it = sessions_.find(uid);
    return it == sessions_.end() ? UserSessions{} : it->second;
  }
  std::vector<uid_t> users() const override {
    std::vector<uid_t> out;
    for (const auto& [uid, s] : sessions_) {
      if (s.loggedIn) out.push_back(uid);
    }
    return out;
  }
  void set(uid_t uid, bool counting) {
    sessions_[uid] = {counting, counting};
    listener_(uid);
  }

 private:
  Listener listener_;
  std::map<uid_t, UserSessions> sessions_;
};

class RecordingActions final : public gw::daemon::SessionActions {
 public:
  bool logout(uid_t uid) override {
    logouts.push_back(uid);
    return true;
  }
  bool lock(uid_t uid) override {
    locks.push_back(uid);
    return true;
  }
  std::vector<uid_t> logouts, locks;
};

class ManagerTest : public ::testing::Test {
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
    options.makeMonitor = [this](sd_event*, SessionMonitor::Listener listener) {
      auto monitor = std::make_unique<FakeMonitor>(std::move(listener));
      monitor_ = monitor.get();
      return monitor;
    };
    options.postLoginStatusChanged = [this](const std::string& user) { posted_.push_back(user); };
    options.makeActions = [this](sd_event*) {
      auto actions = std::make_unique<RecordingActions>();
      actions_ = actions.get();
      return actions;
    };
    std::string error;
    manager_ = Manager::create(std::move(options), &error);
    ASSERT_TRUE(manager_) << error;
  }

  void advanceTo(gw::plist::Date at) {
    clock_->advance(at.secondsSinceReferenceDate - clock_->wallNow().secondsSinceReferenceDate);
  }

  static constexpr uid_t kUid = 1;
  gwtest::TempRoot root_;
  gwtest::ScopedTimeZone zone_{"Europe/Berlin"};
  gwtest::LogCapture log_{1};
  std::string name_;
  std::shared_ptr<ManualClock> clock_;
  FakeMonitor* monitor_ = nullptr;
  RecordingActions* actions_ = nullptr;
  std::unique_ptr<Manager> manager_;
  std::vector<std::string> posted_;
};

TEST_F(ManagerTest, AllowanceUsedUpAcrossTwoSessionsEndsTheTimeOnce) {
  writeLimits(timeLimits({}, {{3600, 0, 6}}));
  start(local(2026, 1, 5, 10, 0));
  monitor_->set(kUid, true);
  advanceTo(local(2026, 1, 5, 10, 20));
  monitor_->set(kUid, false);
  EXPECT_EQ(manager_->loginDecision(kUid).seconds(clock_->wallNow()), 2400);

  advanceTo(local(2026, 1, 5, 14, 0));
  EXPECT_EQ(manager_->loginDecision(kUid).seconds(clock_->wallNow()), 2400);  // idle time is free
  monitor_->set(kUid, true);
  advanceTo(local(2026, 1, 5, 14, 30));
  manager_->refresh();
  ASSERT_TRUE(manager_->nextWake());
  EXPECT_EQ(*manager_->nextWake(), local(2026, 1, 5, 14, 40));  // one timer, at the end

  // Warnings count down the last five minutes; the one shown is the last one due.
  advanceTo(local(2026, 1, 5, 14, 35));
  auto items = manager_->statusItems(kUid);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].itemID, "computer-warning-5");
  EXPECT_EQ(items[0].statusKind, "GatewiseStatusKindTerminationWarning");
  advanceTo(local(2026, 1, 5, 14, 36, 30));
  items = manager_->statusItems(kUid);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].itemID, "computer-warning-4");
  EXPECT_EQ(items[0].created, local(2026, 1, 5, 14, 36));
  EXPECT_EQ(items[0].expires, local(2026, 1, 5, 14, 40));
  EXPECT_TRUE(actions_->logouts.empty());

  advanceTo(local(2026, 1, 5, 14, 40));
  manager_->refresh();
  manager_->refresh();
  EXPECT_EQ(actions_->logouts, std::vector<uid_t>{kUid});  // logout is the default, done once
  EXPECT_EQ(posted_, std::vector<std::string>{name_});     // allowed -> refused, posted once
  items = manager_->statusItems(kUid);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].statusKind, "GatewiseStatusKindAllowanceExceeded");
  auto d = manager_->loginDecision(kUid);
  EXPECT_EQ(d.reason, gw::kGWLoginAllowanceUsedUp);
  EXPECT_EQ(d.seconds(clock_->wallNow()), 9 * 3600 + 20 * 60);
  EXPECT_TRUE(log_.contains("is over (the allowance ran out); end action: logout"));
}

TEST_F(ManagerTest, CurfewLocksWhenTheHostSaysSoAndAGrantRestoresTime) {
  writeLimits(timeLimits({{"monday", "21:00:00", "23:59:59"}}, {}));
  root_.writeFile("/Library/Preferences/com.morvane.Gatewise.plist",
                  "<plist><dict><key>endAction</key><string>lock</string></dict></plist>");
  start(local(2026, 1, 5, 20, 0));
  EXPECT_EQ(*manager_->nextWake(), local(2026, 1, 5, 21, 0));  // idle: the curfew's start
  monitor_->set(kUid, true);
  advanceTo(local(2026, 1, 5, 21, 0));
  manager_->refresh();
  EXPECT_EQ(actions_->locks, std::vector<uid_t>{kUid});
  EXPECT_TRUE(actions_->logouts.empty());
  EXPECT_EQ(manager_->statusItems(kUid).at(0).statusKind, "GatewiseStatusKindCurfewUnallowed");

  // Locked sessions stop counting; an administrator grants half an hour.
  monitor_->set(kUid, false);
  std::string day = gw::daemon::dayKeyOf(clock_->wallNow());
  root_.writeFile("/Library/Application Support/Morvane/Tutela/Users/" + name_ +
                      "/com.morvane.gatewise.overrides.plist",
                  "<plist><dict><key>__COMPUTER__</key><dict><key>" + day +
                      "</key><array><dict><key>duration</key><integer>1800</integer>"
                      "<key>expired</key><false/></dict></array></dict></dict></plist>");
  manager_->rereadOverrides(kUid);
  auto d = manager_->loginDecision(kUid);
  EXPECT_EQ(d.reason, gw::kGWLoginAllowed);
  EXPECT_EQ(d.seconds(clock_->wallNow()), 1800);
  EXPECT_EQ(posted_.size(), 2u);  // refused at 21:00, allowed again with the grant
  monitor_->set(kUid, true);
  advanceTo(local(2026, 1, 5, 21, 30));
  manager_->refresh();
  EXPECT_EQ(actions_->locks.size(), 2u);  // the grant used up: locked again
}

TEST_F(ManagerTest, UsageIsFlushedEvery30SecondsAndAClockJumpIsNotCounted) {
  writeLimits(timeLimits({}, {{7200, 0, 6}}));
  start(local(2026, 1, 5, 10, 0));
  monitor_->set(kUid, true);
  std::string error;
  auto reader =
      gw::daemon::UsageStore::openReadOnly(gw::daemon::defaultUsageDatabasePath(), &error);
  ASSERT_TRUE(reader) << error;
  clock_->advance(29);
  manager_->refresh();
  EXPECT_DOUBLE_EQ(reader->usageOn(kUid, "2026-01-05").used, 0);
  clock_->advance(1);
  manager_->refresh();
  EXPECT_DOUBLE_EQ(reader->usageOn(kUid, "2026-01-05").used, 30);

  // The wall clock is set five hours on while only a minute passes.
  clock_->advance(60);
  clock_->set(gw::plist::Date{clock_->wallNow().secondsSinceReferenceDate + 5 * 3600});
  manager_->clockJumped();
  EXPECT_EQ(manager_->loginDecision(kUid).seconds(clock_->wallNow()), 7200 - 90);
}

TEST_F(ManagerTest, WithNobodyManagedTheTimerStaysDisarmed) {
  start(local(2026, 1, 5, 10, 0));
  EXPECT_FALSE(manager_->nextWake());
  EXPECT_FALSE(manager_->timerArmed());
  monitor_->set(kUid, true);  // a session of a user without limits changes nothing
  EXPECT_FALSE(manager_->nextWake());
  EXPECT_FALSE(manager_->timerArmed());  // not even a flush: nothing to book
  EXPECT_EQ(manager_->loginDecision(kUid).reason, gw::kGWLoginAllowed);
  EXPECT_EQ(manager_->loginDecision(kUid).seconds(clock_->wallNow()), 0);

  // Nor is anything recorded about a user nobody manages; once managed, their events are kept.
  auto recorded = [this] {
    gw::daemon::EventStore::Query q;
    q.uid = kUid;
    return manager_->events().store()->query(q).events.size();
  };
  gw::daemon::Event visit{std::string(gw::daemon::kEventVisitedPage), kUid, 0, {{"url", "a:"}}};
  manager_->recordEvent(visit);
  monitor_->set(kUid, false);
  EXPECT_EQ(recorded(), 0u);
  root_.makeFolder("/Library/Managed Preferences/" + name_);
  manager_->recordEvent(visit);
  monitor_->set(kUid, true);
  EXPECT_EQ(recorded(), 2u);  // the visit and the login
}

}  // namespace
