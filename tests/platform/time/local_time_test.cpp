#include "platform/time/local_time.h"

#include <gtest/gtest.h>

#include "support/time_zone.h"

namespace gw::time {
namespace {

using gwtest::utc;

TEST(LocalTimeTest, ComponentsFollowTheZoneAndKeepTheFraction) {
  gwtest::ScopedTimeZone zone("America/New_York");
  plist::Date date = utc(2026, 7, 4, 16, 30, 15);
  date.secondsSinceReferenceDate += 0.25;
  LocalComponents c = localComponents(date);
  EXPECT_EQ(c.year, 2026);
  EXPECT_EQ(c.month, 7);
  EXPECT_EQ(c.day, 4);
  EXPECT_EQ(c.hour, 12);
  EXPECT_EQ(c.minute, 30);
  EXPECT_EQ(c.second, 15);
  EXPECT_EQ(c.weekday, 6);  // a Saturday
  EXPECT_DOUBLE_EQ(c.fraction, 0.25);
  EXPECT_EQ(c.utcOffsetSeconds, -4 * 3600);
}

TEST(LocalTimeTest, SkippedTimesResolveToTheMomentTheClocksJumped) {
  {
    gwtest::ScopedTimeZone zone("Europe/Berlin");
    EXPECT_EQ(dateFromLocalTime(2026, 3, 29, 2, 30, 0), utc(2026, 3, 29, 1, 0));
    EXPECT_EQ(dateFromLocalTime(2026, 3, 29, 3, 0, 0), utc(2026, 3, 29, 1, 0));
    EXPECT_EQ(dateFromLocalTime(2026, 3, 29, 1, 59, 59), utc(2026, 3, 29, 0, 59, 59));
  }
  {
    gwtest::ScopedTimeZone zone("Australia/Lord_Howe");  // half-hour change at 02:00
    EXPECT_EQ(dateFromLocalTime(2026, 10, 4, 2, 15, 0), utc(2026, 10, 3, 15, 30));
    EXPECT_EQ(addingDays(dateFromLocalTime(2026, 10, 3, 2, 15, 0), 1), utc(2026, 10, 3, 15, 30));
  }
}

TEST(LocalTimeTest, RepeatedTimesResolveToTheFirstOccurrenceNotBeforeTheBound) {
  gwtest::ScopedTimeZone zone("Europe/Berlin");
  EXPECT_EQ(dateFromLocalTime(2026, 10, 25, 2, 30, 0), utc(2026, 10, 25, 0, 30));
  EXPECT_EQ(dateFromLocalTime(2026, 10, 25, 2, 30, 0, utc(2026, 10, 25, 1, 0)),
            utc(2026, 10, 25, 1, 30));
  // The same wall-clock time as a moment in the second run of the hour is that moment itself.
  plist::Date second = utc(2026, 10, 25, 1, 10);
  EXPECT_EQ(addingDays(second, 0), second);
}

TEST(LocalTimeTest, AddingDaysKeepsTheWallClockAcrossBothChanges) {
  gwtest::ScopedTimeZone zone("Europe/Berlin");
  EXPECT_EQ(addingDays(utc(2026, 3, 28, 11, 0), 1), utc(2026, 3, 29, 10, 0));
  EXPECT_EQ(addingDays(utc(2026, 10, 24, 10, 0), 1), utc(2026, 10, 25, 11, 0));
  EXPECT_EQ(addingDays(utc(2026, 10, 25, 11, 0), -1), utc(2026, 10, 24, 10, 0));
  EXPECT_EQ(atTimeOfDay(utc(2026, 3, 28, 11, 0), 1, 21 * 3600), utc(2026, 3, 29, 19, 0));
}

TEST(LocalTimeTest, StartOfDayIsLocalMidnight) {
  gwtest::ScopedTimeZone zone("America/New_York");
  EXPECT_EQ(startOfDay(utc(2026, 11, 1, 17, 0)), utc(2026, 11, 1, 4, 0));
  EXPECT_EQ(startOfDay(utc(2026, 11, 2, 4, 59)), utc(2026, 11, 1, 4, 0));
}

}  // namespace
}  // namespace gw::time
