#include <gatewise/schedule/calendar.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "schedule/calendar/week_data.h"
#include "support/log_capture.h"
#include "support/logind_standin.h"

namespace gw {
namespace {

struct Week {
  const char* locale;
  int firstWeekday, lastWeekday, firstWeekendDay, lastWeekendDay, workWeek, weekend;
  const char* firstKey;
  const char* lastKey;
  const char* firstWeekendKey;
  const char* lastWeekendKey;
};

class WeekCalendarTest : public ::testing::Test {
 protected:
  void TearDown() override { setWeekDataLocale(""); }
};

TEST_F(WeekCalendarTest, EachLocaleGetsItsOwnWorkWeek) {
  const Week weeks[] = {
      {"de_DE", 0, 4, 5, 6, 5, 2, "monday", "friday", "saturday", "sunday"},
      {"en_US.UTF-8", 0, 4, 5, 6, 5, 2, "monday", "friday", "saturday", "sunday"},
      // Friday-Saturday weekend: the work week starts on Sunday.
      {"he_IL", 6, 3, 4, 5, 5, 2, "sunday", "thursday", "friday", "saturday"},
      {"he_IL@calendar=hebrew", 6, 3, 4, 5, 5, 2, "sunday", "thursday", "friday", "saturday"},
      // No region: the likely one (Egypt) decides.
      {"ar", 6, 3, 4, 5, 5, 2, "sunday", "thursday", "friday", "saturday"},
      // A one-day weekend on Friday.
      {"fa_IR", 5, 3, 4, 4, 6, 1, "saturday", "thursday", "friday", "friday"},
      // A one-day weekend on Sunday.
      {"hi_IN", 0, 5, 6, 6, 6, 1, "monday", "saturday", "sunday", "sunday"},
  };
  for (const Week& w : weeks) {
    setWeekDataLocale(w.locale);
    SCOPED_TRACE(w.locale);
    EXPECT_EQ(GWFirstWeekday(), w.firstWeekday);
    EXPECT_EQ(GWLastWeekday(), w.lastWeekday);
    EXPECT_EQ(GWFirstWeekendDay(), w.firstWeekendDay);
    EXPECT_EQ(GWLastWeekendDay(), w.lastWeekendDay);
    EXPECT_EQ(GWWorkWeekLength(), w.workWeek);
    EXPECT_EQ(GWWeekendLength(), w.weekend);
    EXPECT_STREQ(GWFirstWeekdayKey(), w.firstKey);
    EXPECT_STREQ(GWLastWeekdayKey(), w.lastKey);
    EXPECT_STREQ(GWFirstWeekendDayKey(), w.firstWeekendKey);
    EXPECT_STREQ(GWLastWeekendDayKey(), w.lastWeekendKey);
    EXPECT_STREQ(GWWeekdayWithOffsetKey(0), w.firstKey);
  }
}

TEST_F(WeekCalendarTest, OffsetsWrapPastSaturdayAndTheInfoBytesHoldICUDays) {
  setWeekDataLocale("he_IL");
  EXPECT_EQ(GWWeekdayWithOffset(1), 0);  // Sunday + 1 = Monday
  EXPECT_EQ(gICUInfo[0], 1);
  EXPECT_EQ(gICUInfo[1], 6);
  setWeekDataLocale("fa_IR");
  EXPECT_EQ(GWWeekdayWithOffset(1), 6);  // Saturday + 1 wraps to Sunday
  EXPECT_STREQ(GWWeekdayWithOffsetKey(1), "sunday");
  EXPECT_EQ(gICUInfo[0], 7);
  setWeekDataLocale("en_GB");
  EXPECT_EQ(GWWeekendDayWithOffset(1), 6);
  EXPECT_STREQ(GWWeekendDayWithOffsetKey(1), "sunday");
}

TEST_F(WeekCalendarTest, MissingWeekDataLogsAndFallsBackToMondayAndSaturday) {
  gwtest::LogCapture log(0);
  std::uint8_t info[4] = {};
  calendar::readWeekData("he_IL", "noSuchSupplementalData", info);
  EXPECT_EQ(info[0], 2);
  EXPECT_EQ(info[1], 7);
  EXPECT_EQ(info[2], 5);
  EXPECT_EQ(info[3], 2);
  EXPECT_TRUE(log.contains("*** ICU lookup failed, using default values"));
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(WeekCalendarTest, ProcessLocaleComesFromLcTimeBeforeLang) {
  gwtest::ScopedEnvironment all("LC_ALL", "");  // empty counts as unset
  gwtest::ScopedEnvironment time("LC_TIME", "he_IL.UTF-8");
  gwtest::ScopedEnvironment lang("LANG", "en_US.UTF-8");
  setWeekDataLocale("");
  EXPECT_EQ(weekDataLocale(), "he_IL");
  EXPECT_EQ(GWFirstWeekday(), 6);
  ::setenv("LC_ALL", "C", 1);
  setWeekDataLocale("");
  EXPECT_EQ(GWFirstWeekday(), 0);
}

}  // namespace
}  // namespace gw
