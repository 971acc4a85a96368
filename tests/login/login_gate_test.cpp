#include <gatewise/ipc.h>
#include <gatewise/login.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gw::plist::Date;
using gwtest::Misbehaviour;
using gwtest::TestDaemon;

const Date kUntouched{-42};

class LoginGateTest : public ::testing::Test {
 protected:
  gwtest::TempRoot root_;
  gwtest::LogCapture log_{3};
};

TEST_F(LoginGateTest, DaemonAbsentLetsTheUserInWithReason4) {
  std::int32_t reason = -1;
  Date date = kUntouched;
  EXPECT_TRUE(GWUserCanLogin(501, &reason, &date));
  EXPECT_EQ(reason, 4);
  EXPECT_EQ(date, kUntouched);
  EXPECT_TRUE(log_.contains("uid: 501"));
  EXPECT_TRUE(log_.contains("tutelad is not running."));
}

TEST_F(LoginGateTest, DaemonAnswersDecide) {
  TestDaemon daemon;
  struct Case {
    std::int32_t seconds, reason;
    bool allowed;
    bool dated;
  } cases[] = {
      {0, 0, true, false}, {900, 2, false, true}, {-5, 3, false, false}, {60, 0, true, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    log_.clear();
    daemon.answer("_GWMIGUserCanLogin", {c.seconds, c.reason});
    std::int32_t reason = -1;
    Date date = kUntouched;
    double before = Date::now().secondsSinceReferenceDate;
    EXPECT_EQ(GWUserCanLogin(777, &reason, &date), c.allowed);
    double after = Date::now().secondsSinceReferenceDate;
    EXPECT_EQ(reason, c.reason);
    if (c.dated) {
      EXPECT_GE(date.secondsSinceReferenceDate, before + c.seconds);
      EXPECT_LE(date.secondsSinceReferenceDate, after + c.seconds);
    } else {
      EXPECT_EQ(date, kUntouched);
    }
    EXPECT_TRUE(log_.contains(c.allowed ? "Returning: YES" : "Returning: NO"));
    EXPECT_EQ(daemon.received().back().integers[0], 777);
  }
}

TEST_F(LoginGateTest, FailedExchangeLetsTheUserInAndLogsTheStatus) {
  TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {900, 2});
  daemon.misbehave("_GWMIGUserCanLogin", Misbehaviour::CloseWithoutReply);
  std::int32_t reason = -1;
  Date date = kUntouched;
  EXPECT_TRUE(GWUserCanLogin(501, &reason, &date));
  EXPECT_EQ(reason, 4);
  EXPECT_EQ(date, kUntouched);
  EXPECT_TRUE(log_.contains("_GWMIGUserCanLogin failed with error -308."));
}

TEST_F(LoginGateTest, ManagedUsersExistExactlyWhenTheFolderDoes) {
  EXPECT_FALSE(GWExistsManagedUsers());
  root_.writeFile("/Library/Managed Preferences", "not a folder");
  EXPECT_FALSE(GWExistsManagedUsers());
  std::remove(root_.at("/Library/Managed Preferences").c_str());
  root_.makeFolder("/Library/Managed Preferences");
  EXPECT_TRUE(GWExistsManagedUsers());
  EXPECT_TRUE(log_.contains("Enter"));
}

TEST_F(LoginGateTest, RegisterUserAgentPortOnlyLogs) {
  TestDaemon daemon;
  GWRegisterUserAgentPort(5);
  EXPECT_TRUE(log_.contains("GWRegisterUserAgentPort is no longer needed. Please stop using it."));
  EXPECT_EQ(daemon.requestCount(), 0u);
}

TEST_F(LoginGateTest, UtilitiesSendTheirUidOrLogThatTheDaemonIsAbsent) {
  struct Case {
    kern_return_t (*operation)(uid_t);
    const char* routine;
    const char* absentLine;
  } cases[] = {
      {GWUtilities::fcdReadOverridesFor, "_GWMIGReadOverrides",
       "fcdReadOverridesFor: daemon is not running."},
      {GWUtilities::fcdReadSettingsFor, "_GWMIGReadSettings",
       "fcdReadSettingsFor: daemon is not running."},
      {GWUtilities::fcdSaveUsageDataFor, "_GWMIGSaveUsageData",
       "fcdSaveUsageDataFor: daemon is not running."},
      {GWUtilities::fcdResetUsageDataFor, "_GWMIGResetUsageData",
       "fcdResetUsageDataFor: daemon is not running."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.routine);
    EXPECT_EQ(c.operation(501), BOOTSTRAP_UNKNOWN_SERVICE);
    EXPECT_TRUE(log_.contains(c.absentLine));
  }
  EXPECT_EQ(GWUtilities::fcdListeningStatusChanged(), BOOTSTRAP_UNKNOWN_SERVICE);
  EXPECT_TRUE(log_.contains("fcdListeningStatusChanged: daemon is not running."));

  TestDaemon daemon;
  std::size_t n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.routine);
    EXPECT_EQ(c.operation(600 + uid_t(n)), KERN_SUCCESS);
    ASSERT_TRUE(daemon.waitForRequests(++n));
    EXPECT_EQ(daemon.received().back().routine, c.routine);
    EXPECT_EQ(daemon.received().back().integers[0], 600 + std::int64_t(n - 1));
  }
  EXPECT_EQ(GWUtilities::fcdListeningStatusChanged(), KERN_SUCCESS);
  ASSERT_TRUE(daemon.waitForRequests(++n));
  EXPECT_EQ(daemon.received().back().messageSize, 24u);
}

}  // namespace
