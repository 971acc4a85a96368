// tutelad as a program, in a temporary system root, asked over its socket exactly as the login
// screen and a user's agent ask it. Users come from nss_wrapper, sessions from a utmp file below
// the root, and the wall clock from faketime: the daemon reads a frozen time from a file the test
// rewrites, so time moves only when the test says. (Fake times lie in the past of the real clock:
// libfaketime shifts the daemon's absolute monotonic timer deadlines by the fake offset, which
// must not make them negative.) The end action is "none": nothing on the machine is touched.
#include <fcntl.h>
#include <gatewise/ipc.h>
#include <gatewise/login_reasons.h>
#include <gatewise/mach.h>
#include <gatewise/status.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "daemon_test_support.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gw::plist::Value;
using gwtest::daemon::timeLimits;

constexpr uid_t kAlice = 4201;
constexpr uid_t kBob = 4202;
constexpr const char* kFaketime = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";

std::string tuteladPath() {
  std::string cli = GATEWISE_TEST_CLI;
  return cli.substr(0, cli.rfind('/')) + "/tutelad";
}

struct Answer {
  kern_return_t status = -1;
  std::int32_t seconds = -1;
  std::int32_t reason = -1;
};

Answer askLogin(uid_t uid) {
  Answer a;
  mach_port_t port = 0;
  if (bootstrap_look_up(bootstrap_port, "com.morvane.gatewise", &port) != 0) return a;
  a.status = _GWMIGUserCanLogin(port, 5000, uid, &a.seconds, &a.reason);
  return a;
}

class DaemonEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access(kFaketime, R_OK) != 0) GTEST_SKIP() << "libfaketime is not installed";
    if (::access(tuteladPath().c_str(), X_OK) != 0) GTEST_SKIP() << "tutelad is not built";
    passwd_ = root_.writeFile("/etc/passwd",
                              "root:x:0:0:root:/root:/bin/sh\n"
                              "alice:x:4201:4201:Alice:/home/alice:/bin/sh\n"
                              "bob:x:4202:4202:Bob:/home/bob:/bin/sh\n");
    group_ = root_.writeFile("/etc/group", "root:x:0:\nalice:x:4201:\nbob:x:4202:\n");
    root_.writeFile("/Library/Preferences/com.morvane.Gatewise.plist",
                    "<plist><dict><key>endAction</key><string>none</string></dict></plist>");
    root_.makeFolder("/run");
    // The managed users' own processes (status items, refused resets) must reach the socket.
    ::chmod(root_.path().c_str(), 0755);
    setUsers({});
  }

  void setLimits(const std::string& user, const Value& prefs) {
    root_.writeFile(
        "/Library/Managed Preferences/" + user + "/com.morvane.gatewise.timelimits.plist",
        *gw::plist::writePropertyList(prefs, gw::plist::Format::XML));
  }

  // The frozen local time the daemon sees ("2026-01-05 20:50:00").
  void setTime(const std::string& local) {
    std::string path = root_.at("/faketime");
    root_.writeFile("/faketime.new", local + "\n");
    ::rename(root_.at("/faketime.new").c_str(), path.c_str());
  }

  // Replaces the utmp file with one login per named user.
  void setUsers(const std::vector<std::string>& names) {
    std::string next = root_.writeFile("/run/utmp.new", "");
    ::utmpxname(next.c_str());
    ::setutxent();
    int line = 1;
    for (const std::string& name : names) {
      utmpx entry{};
      entry.ut_type = USER_PROCESS;
      entry.ut_pid = 10000 + line;
      std::snprintf(entry.ut_line, sizeof entry.ut_line, "tty%d", line);
      std::snprintf(entry.ut_id, sizeof entry.ut_id, "t%d", line % 100);
      std::strncpy(entry.ut_user, name.c_str(), sizeof entry.ut_user - 1);
      ::pututxline(&entry);
      ++line;
    }
    ::endutxent();
    ::rename(next.c_str(), root_.at("/run/utmp").c_str());
  }

  void startDaemon(const std::string& zone = "Europe/Berlin") {
    daemon_.reset();
    daemon_ = std::make_unique<gwtest::ChildProcess>(
        std::vector<std::string>{tuteladPath(), "--root", root_.path(), "--foreground",
                                 "--log-level", "1"},
        gwtest::Environment{{"LD_PRELOAD", std::string("libnss_wrapper.so ") + kFaketime},
                            {"NSS_WRAPPER_PASSWD", passwd_},
                            {"NSS_WRAPPER_GROUP", group_},
                            {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                            {"FAKETIME_TIMESTAMP_FILE", root_.at("/faketime")},
                            {"FAKETIME_NO_CACHE", "1"},
                            {"DONT_FAKE_MONOTONIC", "1"},
                            {"TZ", zone},
                            {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + root_.at("/no-bus")}});
    std::size_t started = log_.size();
    cursor_ = started;
    ASSERT_TRUE(waitForLog("tutelad serving"));
    cursor_ = started;  // what it logged while starting is still to be looked at
  }

  // Finds the next log line (after the last one found) that holds text, reading the daemon's log
  // as it comes; false when the log ends or stalls first.
  bool waitForLog(const std::string& text) {
    for (;;) {
      for (; cursor_ < log_.size(); ++cursor_) {
        if (log_[cursor_].find(text) != std::string::npos) {
          ++cursor_;
          return true;
        }
      }
      auto line = daemon_->readErrLine(std::chrono::seconds(20));
      if (!line) return false;
      log_.push_back(*line);
    }
  }

  // Runs body as uid in a child (the daemon answers status items about the caller).
  static int asUser(uid_t uid, const std::function<int()>& body) {
    return gwtest::runInChild([&] {
      if (::setgid(uid) != 0 || ::setuid(uid) != 0) return 99;
      return body();
    });
  }

  // The caller's status items, as "kind@minutes" ("" when none); "?" when they could not be had.
  static std::string statusOf(uid_t uid) {
    std::string result;
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) return "?";
    int status = asUser(uid, [&] {
      ::close(pipeFds[0]);
      gw::plist::ArrayRef items = gw::GWGetStatusItems();
      std::string text = items ? "" : "?";
      if (items) {
        for (const Value& v : *items) {
          auto item = v.ifObject<gw::GWStatusItem>();
          if (!item) return 3;
          text += item->statusKind().value_or("nil") + "@" +
                  std::to_string(int(item->timeFromCreation() / 60)) + " ";
        }
      }
      return ::write(pipeFds[1], text.data(), text.size()) == ssize_t(text.size()) ? 0 : 4;
    });
    ::close(pipeFds[1]);
    char buffer[512];
    ssize_t n = ::read(pipeFds[0], buffer, sizeof buffer);
    ::close(pipeFds[0]);
    if (status != 0 || n < 0) return "?";
    result.assign(buffer, std::size_t(n));
    return result;
  }

  gwtest::TempRoot root_;
  std::string passwd_, group_;
  std::unique_ptr<gwtest::ChildProcess> daemon_;
  std::vector<std::string> log_;
  std::size_t cursor_ = 0;
};

TEST_F(DaemonEndToEndTest, CurfewStartsWithWarningsThenTheEndAlertAndAction) {
  setLimits(
      "alice",
      timeLimits({{"monday", "21:00:00", "23:59:59"}, {"tuesday", "00:00:00", "07:00:00"}}, {}));
  setTime("2026-01-05 20:50:00");
  setUsers({"alice"});
  startDaemon();

  Answer a = askLogin(kAlice);
  EXPECT_EQ(a.status, 0);
  EXPECT_EQ(a.reason, gw::kGWLoginAllowed);
  EXPECT_EQ(a.seconds, 600);
  EXPECT_EQ(statusOf(kAlice), "");

  const std::vector<std::pair<std::string, std::string>> warnings = {
      {"2026-01-05 20:55:00", "GatewiseStatusKindTerminationWarning@5 "},
      {"2026-01-05 20:56:30", "GatewiseStatusKindTerminationWarning@4 "},
      {"2026-01-05 20:57:00", "GatewiseStatusKindTerminationWarning@3 "},
      {"2026-01-05 20:58:59", "GatewiseStatusKindTerminationWarning@2 "},
      {"2026-01-05 20:59:30", "GatewiseStatusKindTerminationWarning@1 "},
  };
  for (const auto& [time, expected] : warnings) {
    setTime(time);
    EXPECT_EQ(statusOf(kAlice), expected) << time;
  }

  setTime("2026-01-05 21:00:05");
  a = askLogin(kAlice);
  EXPECT_EQ(a.reason, gw::kGWLoginCurfew);
  EXPECT_EQ(a.seconds, 10 * 3600 - 5);  // until Tuesday 07:00
  EXPECT_TRUE(waitForLog("Computer time of alice is over (a curfew began); end action: none"));
  EXPECT_EQ(statusOf(kAlice), "GatewiseStatusKindCurfewUnallowed@0 ");

  // A user asking about someone else is answered about themselves; bob has no limits.
  int status = asUser(kBob, [] {
    Answer b = askLogin(kAlice);
    return b.status == 0 && b.reason == gw::kGWLoginAllowed && b.seconds == 0 ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(waitForLog("uid 4202 asked _GWMIGUserCanLogin about uid 4201"));
}

TEST_F(DaemonEndToEndTest, AllowanceUsedUpOverTwoSessionsAGrantAndANewDay) {
  setLimits("bob", timeLimits({}, {{3600, 0, 6}}));
  setTime("2026-01-05 10:00:00");
  startDaemon();
  setUsers({"bob"});
  ASSERT_TRUE(waitForLog("Sessions of bob changed: counting"));
  setTime("2026-01-05 10:20:00");
  setUsers({});
  ASSERT_TRUE(waitForLog("Sessions of bob changed: logged out"));
  setTime("2026-01-05 14:00:00");
  EXPECT_EQ(askLogin(kBob).seconds, 2400);
  setUsers({"bob"});
  ASSERT_TRUE(waitForLog("Sessions of bob changed: counting"));
  setTime("2026-01-05 14:30:00");
  EXPECT_EQ(askLogin(kBob).seconds, 600);

  setTime("2026-01-05 14:40:00");
  Answer a = askLogin(kBob);
  EXPECT_EQ(a.reason, gw::kGWLoginAllowanceUsedUp);
  EXPECT_EQ(a.seconds, 9 * 3600 + 20 * 60);  // until midnight
  EXPECT_TRUE(waitForLog("Computer time of bob is over (the allowance ran out)"));
  setUsers({});
  ASSERT_TRUE(waitForLog("Sessions of bob changed: logged out"));

  // An administrator grants half an hour for today and has the daemon reread the overrides.
  root_.writeFile(
      "/Library/Application Support/Morvane/Tutela/Users/bob/"
      "com.morvane.gatewise.overrides.plist",
      "<plist><dict><key>__COMPUTER__</key><dict><key>2026-01-05</key><array><dict>"
      "<key>duration</key><integer>1800</integer><key>expired</key><false/>"
      "</dict></array></dict></dict></plist>");
  EXPECT_EQ(GWUtilities::fcdReadOverridesFor(kBob), 0);
  a = askLogin(kBob);
  EXPECT_EQ(a.reason, gw::kGWLoginAllowed);
  EXPECT_EQ(a.seconds, 1800);

  setTime("2026-01-06 09:00:00");
  a = askLogin(kBob);
  EXPECT_EQ(a.reason, gw::kGWLoginAllowed);
  EXPECT_EQ(a.seconds, 3600);  // a new day, a new allowance; yesterday's grant is gone
}

TEST_F(DaemonEndToEndTest, UsageSurvivesKillNineAndRootMayResetIt) {
  setLimits("bob", timeLimits({}, {{3600, 0, 6}}));
  setTime("2026-01-05 10:00:00");
  setUsers({"bob"});
  startDaemon();
  setTime("2026-01-05 10:30:00");
  EXPECT_EQ(GWUtilities::fcdSaveUsageDataFor(kBob), 0);
  ASSERT_TRUE(waitForLog("Usage saved"));
  daemon_.reset();  // SIGKILL

  startDaemon();
  EXPECT_EQ(askLogin(kBob).seconds, 1800);

  // Only root may reset usage.
  int status = asUser(kBob, [] { return GWUtilities::fcdResetUsageDataFor(kBob) == 0 ? 0 : 1; });
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(waitForLog("uid 4202 may not reset usage"));
  EXPECT_EQ(askLogin(kBob).seconds, 1800);
  auto cli = [&](std::vector<std::string> args) {
    return gwtest::runCli(args, {.environment = {{"LD_PRELOAD", kFaketime},
                                                 {"FAKETIME_TIMESTAMP_FILE", root_.at("/faketime")},
                                                 {"FAKETIME_NO_CACHE", "1"},
                                                 {"TZ", "Europe/Berlin"},
                                                 {"ASAN_OPTIONS", "verify_asan_link_order=0"}}});
  };
  gwtest::RunResult shown = cli({"usage", "4202"});
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_EQ(shown.out, "used=1800 remaining=1800\n");
  gwtest::RunResult reset = cli({"usage", "reset", "4202"});
  EXPECT_EQ(reset.status, 0) << reset.err;
  ASSERT_TRUE(waitForLog("Usage of bob for today reset"));
  EXPECT_EQ(askLogin(kBob).seconds, 3600);
  EXPECT_EQ(cli({"usage", "4202"}).out, "used=0 remaining=3600\n");
}

TEST_F(DaemonEndToEndTest, ACurfewOnTheNightClocksSpringForward) {
  setLimits("alice", timeLimits({{"sunday", "00:00:00", "07:00:00"}}, {}));
  setTime("2026-03-08 00:30:00");
  startDaemon("America/New_York");
  Answer a = askLogin(kAlice);
  EXPECT_EQ(a.reason, gw::kGWLoginCurfew);
  EXPECT_EQ(a.seconds, 5 * 3600 + 1800);  // 6.5 hours on the wall clock, one of them skipped
}

TEST_F(DaemonEndToEndTest, HostileLimitsAreLoggedAndLeaveTheUserFree) {
  root_.writeFile("/Library/Managed Preferences/alice/com.morvane.gatewise.timelimits.plist",
                  "<plist><dict><key>limits-list</key><array><dict><key>itemType</key>"
                  "<string>com.morvane.gatewise.timelimits.computer</string><key>enabled</key>"
                  "<true/><key>curfews</key><dict><key>monday</key><array><dict><key>start</key>"
                  "<string>22:00:00</string><key>end</key><string>99:00:00</string></dict>"
                  "</array></dict></dict></array></dict></plist>");
  setTime("2026-01-05 22:30:00");
  startDaemon();
  Answer a = askLogin(kAlice);
  EXPECT_EQ(a.status, 0);
  EXPECT_EQ(a.reason, gw::kGWLoginAllowed);
  EXPECT_EQ(a.seconds, 0);
  EXPECT_TRUE(waitForLog("Ignoring the time limits of alice"));
}

TEST_F(DaemonEndToEndTest, RewrittenLimitsAnswerTheVeryNextQuestion) {
  setLimits("bob", timeLimits({}, {{3600, 0, 6}}));
  setTime("2026-01-05 10:00:00");
  startDaemon();
  // Sizes differ from one file to the next: under faketime a file's times stand still.
  for (int seconds : {3600, 36000, 1800}) {
    setLimits("bob", timeLimits({}, {{seconds, 0, 6}}));
    EXPECT_EQ(askLogin(kBob).seconds, seconds);
    EXPECT_EQ(askLogin(kBob).seconds, seconds);  // and again, from what it read
  }
}

}  // namespace
