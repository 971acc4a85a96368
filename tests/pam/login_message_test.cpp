// The module's texts: moments on the local calendar (not in 24-hour steps), rounded up to the
// minute a returning user is let in, and one sentence per reason.
#include "login_message.h"

#include <gatewise/login_reasons.h>
#include <gtest/gtest.h>

#include <ctime>

#include "support/time_zone.h"

namespace {

std::time_t at(int year, int month, int day, int hour, int minute, int second = 0) {
  return std::time_t(gwtest::utc(year, month, day, hour, minute, second).unixTime());
}

TEST(LoginMessageTest, MomentsFollowTheLocalCalendar) {
  gwtest::ScopedTimeZone berlin("Europe/Berlin");
  // Monday 2026-11-23, 21:00 in Berlin.
  std::time_t now = at(2026, 11, 23, 20, 0);
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 23, 22, 30), now), "at 23:30");
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 23, 23, 10), now), "tomorrow at 0:10");
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 24, 6, 0), now), "tomorrow at 7:00");
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 26, 6, 0), now), "on Thursday at 7:00");
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 29, 22, 59), now), "on Sunday at 23:59");
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 30, 6, 0), now), "on 2026-11-30 at 7:00");
  EXPECT_EQ(gw::pam::momentText(at(2026, 12, 5, 6, 0), now), "on 2026-12-05 at 7:00");
}

TEST(LoginMessageTest, MomentsRoundUpToTheMinuteAUserIsLetIn) {
  gwtest::ScopedTimeZone utc("UTC");
  std::time_t now = at(2026, 11, 23, 6, 0);
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 23, 7, 0, 0), now), "at 7:00");
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 23, 6, 59, 1), now), "at 7:00");
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 23, 7, 0, 1), now), "at 7:01");
  // Rounding up across midnight moves the day as well.
  EXPECT_EQ(gw::pam::momentText(at(2026, 11, 23, 23, 59, 30), now), "tomorrow at 0:00");
}

TEST(LoginMessageTest, DaylightSavingNightsCountAsOneDay) {
  gwtest::ScopedTimeZone berlin("Europe/Berlin");
  // Saturday 2027-03-27 at 22:00 CET; the clocks go forward that night, so 07:00 CEST on Sunday
  // is only 8 hours later, and on the autumn night 07:00 is 10 hours later: both are tomorrow.
  EXPECT_EQ(gw::pam::momentText(at(2027, 3, 28, 5, 0), at(2027, 3, 27, 21, 0)), "tomorrow at 7:00");
  EXPECT_EQ(gw::pam::momentText(at(2027, 10, 31, 6, 0), at(2027, 10, 30, 20, 0)),
            "tomorrow at 7:00");
  // 24 hours after 23:30 on the spring night is already the day after tomorrow, 00:30.
  EXPECT_EQ(gw::pam::momentText(at(2027, 3, 28, 22, 30), at(2027, 3, 27, 22, 30)),
            "on Monday at 0:30");
}

TEST(LoginMessageTest, OneSentencePerReason) {
  gwtest::ScopedTimeZone utc("UTC");
  std::time_t now = at(2026, 11, 23, 22, 0);
  std::time_t morning = at(2026, 11, 24, 7, 0);
  EXPECT_EQ(gw::pam::refusalMessage(gw::kGWLoginCurfew, morning, now),
            "It is past your curfew. You may log in again tomorrow at 7:00.");
  EXPECT_EQ(gw::pam::refusalMessage(gw::kGWLoginAllowanceUsedUp, at(2026, 11, 24, 0, 0), now),
            "Your computer time for today is used up. You may log in again tomorrow at 0:00.");
  EXPECT_EQ(gw::pam::refusalMessage(gw::kGWLoginNoTimeToday, at(2026, 11, 26, 0, 0), now),
            "You have no computer time today. You may log in again on Thursday at 0:00.");
  EXPECT_EQ(gw::pam::refusalMessage(gw::kGWLoginCurfew, std::nullopt, now),
            "It is past your curfew.");
  EXPECT_EQ(gw::pam::refusalMessage(77, std::nullopt, now), "You may not log in now.");
  EXPECT_EQ(gw::pam::refusalMessage(-1, morning, now),
            "You may not log in now. You may log in again tomorrow at 7:00.");
  EXPECT_EQ(gw::pam::refusalMessage(gw::kGWLoginDaemonNotAsked, morning, now),
            gw::pam::daemonUnavailableMessage());
}

TEST(LoginMessageTest, TimeLeftIsShownInWholeSecondsOnlyWhenLimited) {
  EXPECT_EQ(gw::pam::timeLeftMessage(2700), "You have 45 minutes left today.");
  // The gate's date lies a fraction of a second off the daemon's whole seconds.
  EXPECT_EQ(gw::pam::timeLeftMessage(2699.7), "You have 45 minutes left today.");
  EXPECT_EQ(gw::pam::timeLeftMessage(3661), "You have 1 hour, 1 minute and 1 second left today.");
  EXPECT_EQ(gw::pam::timeLeftMessage(0.2), "You have 1 second left today.");
  EXPECT_EQ(gw::pam::timeLeftMessage(0), std::nullopt);
  EXPECT_EQ(gw::pam::timeLeftMessage(-5), std::nullopt);
}

}  // namespace
