// The logind session monitor against a stand-in logind on a private system bus: the first picture,
// sessions appearing, going idle, locked and away, signals forged by other clients, logind
// restarting, and the choice between logind and utmpx.
#include <gtest/gtest.h>
#include <systemd/sd-event.h>
#include <utmpx.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "daemon/sessions/session_monitor.h"
#include "platform/notify/system_bus.h"
#include "support/bus_fixture.h"
#include "support/logind_standin.h"
#include "support/temp_root.h"

namespace gw::daemon {
namespace {

using gwtest::LogindStandin;
using Announce = LogindStandin::Announce;

constexpr UserSessions kAway{};
constexpr UserSessions kCounting{.loggedIn = true, .counting = true};
constexpr UserSessions kPresentOnly{.loggedIn = true, .counting = false};

LogindStandin::Session session(std::string id, uid_t uid) {
  LogindStandin::Session s;
  s.id = std::move(id);
  s.uid = uid;
  return s;
}

class LogindMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GE(sd_event_new(&loop_), 0);
    standin_.emplace(loop_);
    std::string error;
    bus_ = notify::openSystemBus(&error);
    ASSERT_TRUE(bus_) << error;
  }
  void TearDown() override {
    monitor_.reset();
    bus_.reset();
    standin_.reset();
    sd_event_unref(loop_);
  }

  void start() {
    monitor_ = makeLogindMonitor(loop_, bus_.get(), [this](uid_t uid) { calls_.push_back(uid); });
    ASSERT_NE(monitor_, nullptr);
  }
  // Runs the loop until the listener has been called once more than before, and returns the uid.
  std::optional<uid_t> nextCall() {
    std::size_t before = calls_.size();
    if (!gwtest::runLoopUntil(loop_, [&] { return calls_.size() > before; })) return std::nullopt;
    return calls_.back();
  }

  gwtest::PrivateBus privateBus_;
  sd_event* loop_ = nullptr;
  std::optional<LogindStandin> standin_;
  notify::BusPtr bus_;
  std::unique_ptr<SessionMonitor> monitor_;
  std::vector<uid_t> calls_;
};

TEST_F(LogindMonitorTest, FirstPictureCountsOnlyActiveUserSessions) {
  standin_->addSession(session("1", 1000));  // active, neither idle nor locked
  auto idle = session("2", 1001);
  idle.idle = true;
  standin_->addSession(idle);
  auto greeter = session("c1", 990);
  greeter.sessionClass = "greeter";
  standin_->addSession(greeter);
  auto background = session("3", 1002);
  background.active = false;
  standin_->addSession(background);

  start();
  EXPECT_TRUE(monitor_->users().empty());  // nothing known before the loop has run
  ASSERT_TRUE(gwtest::runLoopUntil(loop_, [&] { return monitor_->users().size() == 3; }));
  EXPECT_EQ(monitor_->users(), (std::vector<uid_t>{1000, 1001, 1002}));
  EXPECT_EQ(monitor_->sessionsOf(1000), kCounting);
  EXPECT_EQ(monitor_->sessionsOf(1001), kPresentOnly);
  EXPECT_EQ(monitor_->sessionsOf(1002), kPresentOnly);
  EXPECT_EQ(monitor_->sessionsOf(990), kAway);  // a greeter is nobody's login
  std::vector<uid_t> announced = calls_;
  std::sort(announced.begin(), announced.end());
  EXPECT_EQ(announced, (std::vector<uid_t>{1000, 1001, 1002}));
}

TEST_F(LogindMonitorTest, SessionsAppearGoIdleLockAndGoAway) {
  start();
  standin_->addSession(session("5", 1000));
  ASSERT_EQ(nextCall(), 1000u);
  EXPECT_EQ(monitor_->sessionsOf(1000), kCounting);

  standin_->setIdleHint("5", true);
  ASSERT_EQ(nextCall(), 1000u);
  EXPECT_EQ(monitor_->sessionsOf(1000), kPresentOnly);
  standin_->setIdleHint("5", false);
  ASSERT_EQ(nextCall(), 1000u);
  EXPECT_EQ(monitor_->sessionsOf(1000), kCounting);

  // Announced as invalidated: the monitor must read the property again to see it.
  standin_->setLockedHint("5", true, Announce::Invalidation);
  ASSERT_EQ(nextCall(), 1000u);
  EXPECT_EQ(monitor_->sessionsOf(1000), kPresentOnly);

  // A second session on another seat counts while the first stays locked.
  standin_->addSession(session("6", 1000));
  ASSERT_EQ(nextCall(), 1000u);
  EXPECT_EQ(monitor_->sessionsOf(1000), kCounting);
  standin_->setActive("6", false);
  ASSERT_EQ(nextCall(), 1000u);
  EXPECT_EQ(monitor_->sessionsOf(1000), kPresentOnly);

  standin_->removeSession("6");
  ASSERT_EQ(nextCall(), 1000u);
  EXPECT_EQ(monitor_->sessionsOf(1000), kPresentOnly);
  standin_->removeSession("5");
  ASSERT_EQ(nextCall(), 1000u);
  EXPECT_EQ(monitor_->sessionsOf(1000), kAway);
  EXPECT_TRUE(monitor_->users().empty());
}

TEST_F(LogindMonitorTest, GreetersAndSessionsGoneBeforeReadAnnounceNothing) {
  start();
  auto greeter = session("c2", 990);
  greeter.sessionClass = "greeter";
  standin_->addSession(greeter);
  standin_->addSession(session("9", 1002));  // gone before the monitor can read it
  standin_->removeSession("9");
  standin_->addSession(session("10", 1000));
  ASSERT_EQ(nextCall(), 1000u);
  EXPECT_EQ(calls_, std::vector<uid_t>{1000});
  EXPECT_EQ(monitor_->users(), std::vector<uid_t>{1000});
  EXPECT_EQ(monitor_->sessionsOf(1002), kAway);
}

TEST_F(LogindMonitorTest, SignalsForgedByOtherClientsAreIgnored) {
  std::string path = standin_->addSession(session("7", 1000));
  // Another part of the daemon listening broadly on the same connection: the bus then delivers
  // every signal, and the monitor must tell logind's own from the rest itself.
  sd_bus_slot* broad = nullptr;
  ASSERT_GE(sd_bus_add_match(bus_.get(), &broad, "type='signal'", nullptr, nullptr), 0);
  start();
  ASSERT_EQ(nextCall(), 1000u);

  std::string error;
  notify::BusPtr forger = notify::openSystemBus(&error);
  ASSERT_TRUE(forger) << error;
  ASSERT_GE(
      sd_bus_emit_signal(forger.get(), "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                         "SessionRemoved", "so", "7", path.c_str()),
      0);
  // The forger has no such object, so it builds the PropertiesChanged signal by hand.
  sd_bus_message* fake = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(forger.get(), &fake, path.c_str(),
                                      "org.freedesktop.DBus.Properties", "PropertiesChanged"),
            0);
  ASSERT_GE(sd_bus_message_append(fake, "sa{sv}as", "org.freedesktop.login1.Session", 1, "IdleHint",
                                  "b", 1, 0),
            0);
  ASSERT_GE(sd_bus_send(forger.get(), fake, nullptr), 0);
  sd_bus_message_unref(fake);
  // A round trip to the bus: once it answers, it has routed the forged signals before anything
  // the stand-in sends next.
  ASSERT_GE(sd_bus_call_method(forger.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "GetId", nullptr, nullptr, ""),
            0);

  standin_->addSession(session("8", 1001));
  ASSERT_EQ(nextCall(), 1001u);
  EXPECT_EQ(calls_, (std::vector<uid_t>{1000, 1001}));
  EXPECT_EQ(monitor_->sessionsOf(1000), kCounting);
  sd_bus_slot_unref(broad);
}

TEST_F(LogindMonitorTest, LogindRestartingReplacesTheWholePicture) {
  standin_->addSession(session("1", 1000));
  start();
  ASSERT_EQ(nextCall(), 1000u);

  // logind goes away and comes back knowing other sessions (and not announcing them).
  standin_.reset();
  standin_.emplace(loop_);
  standin_->addSession(session("2", 1001));
  ASSERT_TRUE(
      gwtest::runLoopUntil(loop_, [&] { return monitor_->users() == std::vector<uid_t>{1001}; }));
  EXPECT_EQ(monitor_->sessionsOf(1000), kAway);
  EXPECT_EQ(monitor_->sessionsOf(1001), kCounting);
  EXPECT_NE(std::find(calls_.begin() + 1, calls_.end(), 1000u), calls_.end());
}

TEST_F(LogindMonitorTest, SourceCanBeForcedEitherWay) {
  gwtest::TempRoot root;
  utmpx login;
  std::memset(&login, 0, sizeof login);
  login.ut_type = USER_PROCESS;
  std::strncpy(login.ut_user, "root", sizeof login.ut_user);
  root.writeFile("/run/utmp", std::string(reinterpret_cast<const char*>(&login), sizeof login));
  standin_->addSession(session("1", 1000));

  {
    gwtest::ScopedEnvironment force("GATEWISE_SESSION_SOURCE", "utmpx");
    auto monitor = makeSessionMonitor(loop_, bus_.get(), [](uid_t) {});
    EXPECT_EQ(monitor->users(), std::vector<uid_t>{0});
  }
  {
    gwtest::ScopedEnvironment force("GATEWISE_SESSION_SOURCE", "logind");
    auto monitor = makeSessionMonitor(loop_, bus_.get(), [](uid_t) {});
    EXPECT_TRUE(
        gwtest::runLoopUntil(loop_, [&] { return monitor->users() == std::vector<uid_t>{1000}; }));
    // Without a bus there is no logind to follow, whatever the setting says.
    EXPECT_EQ(makeSessionMonitor(loop_, nullptr, [](uid_t) {})->users(), std::vector<uid_t>{0});
  }
}

}  // namespace
}  // namespace gw::daemon
