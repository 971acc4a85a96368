// The utmpx session monitor: which records count, the read bound, and the file watched through the
// loop as login programs append, rewrite and replace it.
#include <gtest/gtest.h>
#include <pwd.h>
#include <stdio.h>
#include <systemd/sd-event.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "daemon/sessions/session_monitor.h"
#include "daemon/sessions/utmp_records.h"
#include "support/log_capture.h"
#include "support/logind_standin.h"
#include "support/temp_root.h"

namespace gw::daemon {
namespace {

std::string record(short type, const char* user, const char* line) {
  utmpx entry;
  std::memset(&entry, 0, sizeof entry);
  entry.ut_type = type;
  entry.ut_pid = ::getpid();
  std::strncpy(entry.ut_line, line, sizeof entry.ut_line);
  std::strncpy(entry.ut_user, user, sizeof entry.ut_user);
  return std::string(reinterpret_cast<const char*>(&entry), sizeof entry);
}

std::string login(const char* user, const char* line = "tty1") {
  return record(USER_PROCESS, user, line);
}

uid_t uidOf(const char* name) {
  passwd* entry = ::getpwnam(name);
  return entry ? entry->pw_uid : uid_t(-1);
}

class UtmpMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GE(sd_event_new(&loop_), 0);
    daemonUid_ = uidOf("daemon");
    ASSERT_NE(daemonUid_, uid_t(-1)) << "the password database has no \"daemon\"";
    root_.makeFolder("/run");
  }
  void TearDown() override {
    monitor_.reset();
    sd_event_unref(loop_);
  }

  void start() {
    monitor_ = makeUtmpMonitor(loop_, {}, [this](uid_t uid) { calls_.push_back(uid); });
  }
  // Waits until the listener has been called n times in all.
  bool waitForCalls(std::size_t n) {
    return gwtest::runLoopUntil(loop_, [&] { return calls_.size() >= n; });
  }
  void append(const std::string& bytes) {
    std::ofstream(root_.at("/run/utmp"), std::ios::binary | std::ios::app) << bytes;
  }
  // Writes a new file beside the watched one and renames it over it, as atomic writers do.
  void replace(const std::string& bytes) {
    root_.writeFile("/run/utmp.new", bytes);
    ASSERT_EQ(::rename(root_.at("/run/utmp.new").c_str(), root_.at("/run/utmp").c_str()), 0);
  }

  gwtest::TempRoot root_;
  sd_event* loop_ = nullptr;
  uid_t daemonUid_ = 0;
  std::unique_ptr<SessionMonitor> monitor_;
  std::vector<uid_t> calls_;
};

TEST_F(UtmpMonitorTest, OnlyUserProcessRecordsOfKnownUsersCount) {
  std::string partial = login("daemon").substr(0, 100);  // a writer caught half-way
  root_.writeFile("/run/utmp", login("root", "pts/0") + login("root", "tty2") +
                                   record(DEAD_PROCESS, "daemon", "tty3") +
                                   record(LOGIN_PROCESS, "LOGIN", "tty4") +
                                   login("no-such-user-here") + partial);
  start();
  EXPECT_EQ(monitor_->users(), std::vector<uid_t>{0});
  EXPECT_EQ(monitor_->sessionsOf(0), (UserSessions{.loggedIn = true, .counting = true}));
  EXPECT_EQ(monitor_->sessionsOf(daemonUid_), UserSessions{});
  EXPECT_EQ(loginsInUtmpFile(root_.at("/run/utmp")).at(0), 2u);
}

TEST_F(UtmpMonitorTest, ReadsAreBoundedAndRefuseLinksAndMissingFiles) {
  // A file past the bound: the records inside it count, the one beyond it does not.
  std::string big = login("daemon");
  while (big.size() + sizeof(utmpx) <= kMaxUtmpBytes) big += record(DEAD_PROCESS, "", "");
  big += login("root");
  ASSERT_GT(big.size(), kMaxUtmpBytes);
  std::string path = root_.writeFile("/run/utmp", big);
  auto logins = loginsInUtmpFile(path);
  EXPECT_EQ(logins.size(), 1u);
  EXPECT_TRUE(logins.contains(daemonUid_));

  std::string target = root_.writeFile("/run/elsewhere", login("root"));
  ASSERT_EQ(::symlink(target.c_str(), root_.at("/run/link").c_str()), 0);
  EXPECT_TRUE(loginsInUtmpFile(root_.at("/run/link")).empty());
  EXPECT_TRUE(loginsInUtmpFile(root_.at("/run/missing")).empty());
  EXPECT_TRUE(loginsInUtmpFile(root_.at("/run")).empty());  // a folder
}

TEST_F(UtmpMonitorTest, ListenerFollowsAppendsRewritesAndReplacements) {
  start();  // no file yet: nobody
  EXPECT_TRUE(monitor_->users().empty());

  append(login("root"));
  ASSERT_TRUE(waitForCalls(1));
  EXPECT_EQ(calls_, std::vector<uid_t>{0});
  EXPECT_TRUE(monitor_->sessionsOf(0).counting);

  // A second user logs in: only that user is announced.
  append(login("daemon", "tty2"));
  ASSERT_TRUE(waitForCalls(2));
  EXPECT_EQ(calls_.back(), daemonUid_);
  EXPECT_EQ(monitor_->users(), (std::vector<uid_t>{0, daemonUid_}));

  // Root logs out: the record is rewritten in place as a dead process.
  root_.writeFile("/run/utmp", record(DEAD_PROCESS, "root", "tty1") + login("daemon", "tty2"));
  ASSERT_TRUE(waitForCalls(3));
  EXPECT_EQ(calls_.back(), 0u);
  EXPECT_FALSE(monitor_->sessionsOf(0).loggedIn);
  EXPECT_TRUE(monitor_->sessionsOf(daemonUid_).loggedIn);

  // The file replaced by rename; a second login of the same user is a change too.
  replace(login("daemon", "tty2") + login("daemon", "pts/1"));
  ASSERT_TRUE(waitForCalls(4));
  EXPECT_EQ(calls_.back(), daemonUid_);

  // A file beside it changing, or the file rewritten with the same logins, announces nothing:
  // the next real change is the only call that follows (inotify reports in order).
  root_.writeFile("/run/other", login("root"));
  replace(login("daemon", "tty2") + login("daemon", "pts/1"));
  append(login("root", "tty5"));
  ASSERT_TRUE(waitForCalls(5));
  EXPECT_EQ(calls_, (std::vector<uid_t>{0, daemonUid_, 0, daemonUid_, 0}));
  EXPECT_EQ(monitor_->users(), (std::vector<uid_t>{0, daemonUid_}));
}

TEST_F(UtmpMonitorTest, DefaultPathIsBelowTheSystemRoot) {
  root_.writeFile("/run/utmp", login("daemon"));
  auto monitor = makeSessionMonitor(loop_, nullptr, [](uid_t) {});
  ASSERT_NE(monitor, nullptr);
  EXPECT_EQ(monitor->users(), std::vector<uid_t>{daemonUid_});

  // A folder that is not there cannot be watched: logged, and nobody is logged in.
  gwtest::LogCapture log(0);
  auto unwatched = makeUtmpMonitor(loop_, root_.at("/nowhere/utmp"), [](uid_t) {});
  ASSERT_NE(unwatched, nullptr);
  EXPECT_TRUE(unwatched->users().empty());
  EXPECT_TRUE(log.contains("cannot watch"));
}

}  // namespace
}  // namespace gw::daemon
