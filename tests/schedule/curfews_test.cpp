#include <gatewise/schedule/calendar.h>
#include <gatewise/schedule/curfews.h>
#include <gtest/gtest.h>

#include "support/time_zone.h"

namespace gw {
namespace {

using gwtest::utc;

GWTime at(const char* text) { return *GWTime::timeWithString(std::string_view(text)); }

GWTimeRangeRef span(const char* start, const char* end) {
  return GWTimeRange::timeRangeWithStartTime(GWTime::timeWithString(std::string_view(start)),
                                             GWTime::timeWithString(std::string_view(end)));
}

// "start-end,start-end" of a day's ranges.
std::string day(const GWCurfews& curfews, const char* key) {
  std::string text;
  for (const GWTimeRangeRef& range : curfews.timeRangesForDay(key)) {
    if (!text.empty()) text += ",";
    text += range->startTime()->stringValue() + "-" + range->endTime()->stringValue();
  }
  return text;
}

std::string text(const GWTimeRef& time) { return time ? time->stringValue() : "(nil)"; }

class CurfewsTest : public ::testing::Test {
 protected:
  void useLocale(const char* locale) { setWeekDataLocale(locale); }
  void TearDown() override { setWeekDataLocale(""); }
};

TEST_F(CurfewsTest, WeekdayCurfewCrossingMidnightLeavesTheLastWorkDayEveningFree) {
  struct Week {
    const char* locale;
    const char* eve;
    std::vector<const char*> middle;  // work days but the last
    const char* last;
    std::vector<const char*> untouched;
  } weeks[] = {
      {"de_DE", "sunday", {"monday", "tuesday", "wednesday", "thursday"}, "friday", {"saturday"}},
      {"he_IL", "saturday", {"sunday", "monday", "tuesday", "wednesday"}, "thursday", {"friday"}},
      {"fa_IR", "friday", {"saturday", "sunday", "monday", "tuesday", "wednesday"}, "thursday", {}},
  };
  for (const Week& week : weeks) {
    SCOPED_TRACE(week.locale);
    useLocale(week.locale);
    GWCurfewsRef curfews = GWCurfews::curfews();
    curfews->setWeekdayCurfewStarting(at("21:00:00"), at("07:00:00"));
    EXPECT_EQ(day(*curfews, week.eve), "21:00:00-23:59:59");
    for (const char* key : week.middle) {
      EXPECT_EQ(day(*curfews, key), "00:00:00-07:00:00,21:00:00-23:59:59") << key;
    }
    EXPECT_EQ(day(*curfews, week.last), "00:00:00-07:00:00");
    for (const char* key : week.untouched) EXPECT_EQ(day(*curfews, key), "") << key;
    EXPECT_EQ(text(curfews->weekdayCurfewStartingTime()), "21:00:00");
    EXPECT_EQ(text(curfews->weekdayCurfewEndingTime()), "07:00:00");
  }
}

TEST_F(CurfewsTest, WeekendAndWeekdayCurfewsShareTheirBorderDays) {
  useLocale("de_DE");
  GWCurfewsRef curfews = GWCurfews::curfews();
  curfews->setWeekdayCurfewStarting(at("21:00:00"), at("07:00:00"));
  curfews->setWeekendCurfewStarting(at("23:00:00"), at("09:00:00"));
  EXPECT_EQ(day(*curfews, "friday"), "00:00:00-07:00:00,23:00:00-23:59:59");
  EXPECT_EQ(day(*curfews, "saturday"), "00:00:00-09:00:00,23:00:00-23:59:59");
  EXPECT_EQ(day(*curfews, "sunday"), "00:00:00-09:00:00,21:00:00-23:59:59");
  EXPECT_EQ(text(curfews->weekendCurfewStartingTime()), "23:00:00");
  EXPECT_EQ(text(curfews->weekendCurfewEndingTime()), "09:00:00");

  curfews->removeWeekdayCurfew();
  EXPECT_EQ(day(*curfews, "sunday"), "00:00:00-09:00:00");
  EXPECT_EQ(day(*curfews, "monday"), "");
  EXPECT_EQ(day(*curfews, "friday"), "23:00:00-23:59:59");
  EXPECT_EQ(day(*curfews, "saturday"), "00:00:00-09:00:00,23:00:00-23:59:59");
  EXPECT_EQ(curfews->weekdayCurfewStartingTime(), nullptr);

  curfews->removeWeekendCurfew();
  EXPECT_FALSE(curfews->hasCurfews());
}

TEST_F(CurfewsTest, OneDayWeekendTakesOnlyTheMorning) {
  useLocale("hi_IN");  // Monday to Saturday, weekend Sunday
  GWCurfewsRef curfews = GWCurfews::curfews();
  curfews->setWeekendCurfewStarting(at("22:00:00"), at("08:00:00"));
  EXPECT_EQ(day(*curfews, "saturday"), "22:00:00-23:59:59");
  EXPECT_EQ(day(*curfews, "sunday"), "00:00:00-08:00:00");
  // One range starting at midnight reads back as a curfew starting at midnight.
  EXPECT_EQ(text(curfews->weekendCurfewStartingTime()), "00:00:00");
}

TEST_F(CurfewsTest, SameDayCurfewLeavesTheEveAlone) {
  useLocale("en_US");
  GWCurfewsRef curfews = GWCurfews::curfews();
  curfews->setWeekdayCurfewStarting(at("21:00:00"), at("07:00:00"));
  curfews->setWeekdayCurfewStarting(at("08:00:00"), at("15:00:00"));
  for (const char* key : {"monday", "tuesday", "wednesday", "thursday", "friday"}) {
    EXPECT_EQ(day(*curfews, key), "08:00:00-15:00:00") << key;
  }
  EXPECT_EQ(day(*curfews, "sunday"), "21:00:00-23:59:59");
  EXPECT_EQ(text(curfews->weekdayCurfewStartingTime()), "08:00:00");
}

TEST_F(CurfewsTest, SingleDayEditingAndKeys) {
  GWCurfewsRef empty = GWCurfews::init();
  empty->addTimeRange(span("01:00:00", "02:00:00"), "monday");
  EXPECT_FALSE(empty->hasCurfews());  // no day keys until _prep

  GWCurfewsRef curfews = GWCurfews::curfews();
  curfews->addTimeRange(span("10:00:00", "11:00:00"), "monday");
  curfews->addTimeRange(span("01:00:00", "02:00:00"), "monday");
  curfews->addTimeRange(span("10:00:00", "11:00:00"), "monday");
  EXPECT_EQ(day(*curfews, "monday"), "01:00:00-02:00:00,10:00:00-11:00:00");
  // Only starts are tested: 01:00-02:00 starts before the span and stays.
  curfews->removeTimeRangesInRange(span("01:30:00", "10:00:00"), "monday");
  EXPECT_EQ(day(*curfews, "monday"), "01:00:00-02:00:00");
  curfews->removeAllCurfews();
  EXPECT_FALSE(curfews->hasCurfews());

  EXPECT_EQ(GWCurfews::dayIndexForKeyString("monday"), 1);
  EXPECT_EQ(GWCurfews::dayIndexForKeyString("Monday"), -1);
  EXPECT_STREQ(GWCurfews::keyStringForDayIndex(6), "saturday");
  EXPECT_EQ(GWCurfews::keyStringForDayIndex(7), nullptr);
}

TEST_F(CurfewsTest, PropertyListFormKeepsStoredDaysAndDropsUnreadableRanges) {
  plist::Value stored = plist::Value::newDictionary(
      {{"monday", plist::Value::newArray(
                      {plist::Value::newDictionary({{"start", "21:00:00"}, {"end", "23:59:59"}}),
                       plist::Value::newDictionary({{"start", "01:00:00"}}), "junk"})},
       {"someday", plist::Value::newArray()}});
  GWCurfewsRef curfews = GWCurfews::curfewsWithDictionary(stored);
  ASSERT_NE(curfews, nullptr);
  EXPECT_EQ(curfews->dictionary()->size(), 2u);
  EXPECT_EQ(day(*curfews, "monday"), "21:00:00-23:59:59");
  plist::Value expected = plist::Value::newDictionary(
      {{"monday", plist::Value::newArray(
                      {plist::Value::newDictionary({{"start", "21:00:00"}, {"end", "23:59:59"}})})},
       {"someday", plist::Value::newArray()}});
  EXPECT_EQ(plist::Value(curfews->plistRepresentation()), expected);

  EXPECT_EQ(GWCurfews::curfewsWithDictionary(plist::Value("monday")), nullptr);
  plist::Value live = plist::Value::newDictionary({{"monday", GWTime::initWithHour(1, 0, 0)}});
  EXPECT_EQ(GWCurfews::curfewsWithDictionary(live), nullptr);
}

TEST_F(CurfewsTest, StoredDaysAreSortedAndImpossibleRangesDroppedWhenRead) {
  gwtest::ScopedTimeZone zone("UTC");
  auto range = [](const char* start, const char* end) {
    return plist::Value::newDictionary({{"start", start}, {"end", end}});
  };
  plist::Value stored = plist::Value::newDictionary(
      {{"monday",
        plist::Value::newArray({range("21:00:00", "23:59:59"), range("25:70:99", "26:00:00"),
                                range("00:00:00", "07:00:00"), range("12:00:00", "11:00:00"),
                                range("-1:00:00", "03:00:00"), range("10:00:00", "10:30:00")})}});
  GWCurfewsRef curfews = GWCurfews::curfewsWithDictionary(stored);
  ASSERT_NE(curfews, nullptr);
  EXPECT_EQ(day(*curfews, "monday"), "00:00:00-07:00:00,10:00:00-10:30:00,21:00:00-23:59:59");
  // Monday 1 June 2026: the morning range stored last still ends the night's curfew at 07:00,
  // and 10:00 is found although it was stored after 21:00.
  EXPECT_TRUE(curfews->isDateCurfewed(utc(2026, 6, 1, 6, 59)));
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(utc(2026, 6, 1, 5, 0)), utc(2026, 6, 1, 7, 0));
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 6, 1, 8, 0)), utc(2026, 6, 1, 10, 0));
}

// Berlin: summer time from 29 March 2026 02:00 to 25 October 2026 03:00.
TEST_F(CurfewsTest, DateQueriesKeepTheWallClockAcrossBerlinChanges) {
  gwtest::ScopedTimeZone zone("Europe/Berlin");
  useLocale("de_DE");
  GWCurfewsRef curfews = GWCurfews::curfews();
  curfews->setWeekdayCurfewStarting(at("21:00:00"), at("07:00:00"));
  curfews->setWeekendCurfewStarting(at("23:00:00"), at("09:00:00"));

  // An ordinary Monday (2 March 2026, CET).
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(utc(2026, 3, 2, 21, 30)), utc(2026, 3, 3, 6, 0));
  EXPECT_TRUE(curfews->isDateCurfewed(utc(2026, 3, 2, 21, 30)));
  EXPECT_FALSE(curfews->isDateCurfewed(utc(2026, 3, 2, 11, 0)));
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 3, 2, 11, 0)), utc(2026, 3, 2, 20, 0));
  plist::Date inside = utc(2026, 3, 2, 21, 0, 30);
  inside.secondsSinceReferenceDate += 0.5;
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(inside), inside);

  // Spring: Saturday 23:30 CET -> Sunday 09:00 CEST; Sunday's evening curfew at 21:00 CEST.
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(utc(2026, 3, 28, 22, 30)), utc(2026, 3, 29, 7, 0));
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 3, 29, 8, 0)), utc(2026, 3, 29, 19, 0));
  // Autumn: Saturday 23:30 CEST -> Sunday 09:00 CET; Sunday 21:00 CET.
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(utc(2026, 10, 24, 21, 30)),
            utc(2026, 10, 25, 8, 0));
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 10, 25, 8, 0)), utc(2026, 10, 25, 20, 0));
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 10, 24, 10, 0)), utc(2026, 10, 24, 21, 0));
}

TEST_F(CurfewsTest, CurfewStartingInTheSkippedHourBeginsWhenTheClocksJump) {
  gwtest::ScopedTimeZone zone("Europe/Berlin");
  GWCurfewsRef curfews = GWCurfews::curfews();
  curfews->addTimeRange(span("02:30:00", "05:00:00"), "sunday");
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 3, 28, 22, 0)), utc(2026, 3, 29, 1, 0));
  EXPECT_TRUE(curfews->isDateCurfewed(utc(2026, 3, 29, 1, 10)));  // 03:10 CEST
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(utc(2026, 3, 29, 1, 10)), utc(2026, 3, 29, 3, 0));
  // A week earlier the same curfew is an ordinary 02:30 CET.
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 3, 21, 22, 0)), utc(2026, 3, 22, 1, 30));
}

// New York: daylight time from 8 March 2026 02:00 to 1 November 2026 02:00.
// The repeated hour of the autumn night is checked in curfews_dst_test.cpp.
TEST_F(CurfewsTest, DateQueriesAcrossNewYorkChanges) {
  gwtest::ScopedTimeZone zone("America/New_York");
  useLocale("en_US");
  GWCurfewsRef curfews = GWCurfews::curfews();
  curfews->setWeekdayCurfewStarting(at("21:00:00"), at("07:00:00"));
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 3, 7, 17, 0)), utc(2026, 3, 9, 1, 0));
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(utc(2026, 3, 9, 2, 0)), utc(2026, 3, 9, 11, 0));
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 10, 31, 16, 0)), utc(2026, 11, 2, 2, 0));
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(utc(2026, 11, 2, 3, 0)), utc(2026, 11, 2, 12, 0));
}

// Lord Howe Island: +11:00 in summer, +10:30 in winter; half-hour changes at 02:00 on 5 April
// and 4 October 2026.
TEST_F(CurfewsTest, DateQueriesAcrossLordHoweHalfHourChanges) {
  gwtest::ScopedTimeZone zone("Australia/Lord_Howe");
  useLocale("en_AU");
  GWCurfewsRef curfews = GWCurfews::curfews();
  curfews->setWeekdayCurfewStarting(at("21:00:00"), at("07:00:00"));
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 4, 4, 1, 0)), utc(2026, 4, 5, 10, 30));
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(utc(2026, 4, 5, 11, 0)), utc(2026, 4, 5, 20, 30));
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 10, 3, 1, 30)), utc(2026, 10, 4, 10, 0));
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(utc(2026, 10, 4, 11, 0)), utc(2026, 10, 4, 20, 0));

  curfews->addTimeRange(span("02:10:00", "04:00:00"), "sunday");
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(utc(2026, 10, 3, 12, 30)), utc(2026, 10, 3, 15, 30));
}

TEST_F(CurfewsTest, NoAnswerWithinEightDays) {
  GWCurfewsRef curfews = GWCurfews::curfews();
  plist::Date now = utc(2026, 6, 1, 12, 0);
  EXPECT_EQ(curfews->nextCurfewDateAfterDate(now), std::nullopt);
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(now), now);
  for (std::int32_t d = 0; d < 7; ++d) {
    curfews->addTimeRange(span("00:00:00", "23:59:59"), GWCurfews::keyStringForDayIndex(d));
  }
  EXPECT_EQ(curfews->nextNonCurfewDateAfterDate(now), std::nullopt);
  EXPECT_TRUE(curfews->isDateCurfewed(now));
}

}  // namespace
}  // namespace gw
