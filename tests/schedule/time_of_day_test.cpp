#include <gatewise/schedule/time_of_day.h>
#include <gtest/gtest.h>

#include "platform/time/local_time.h"
#include "support/time_zone.h"

namespace gw {
namespace {

std::string text(const GWTimeRef& time) { return time ? time->stringValue() : "(nil)"; }

TEST(GWTimeTest, ParsesLeniently) {
  EXPECT_EQ(text(GWTime::timeWithString(std::string_view("7:5:0"))), "07:05:00");
  EXPECT_EQ(text(GWTime::timeWithString(std::string_view("12:30"))), "12:30:00");
  EXPECT_EQ(text(GWTime::timeWithString(std::string_view("25:70:99"))), "25:70:99");
  EXPECT_EQ(text(GWTime::timeWithString(std::string_view(" 8: 9:10"))), "08:09:10");
  EXPECT_EQ(GWTime::timeWithString(std::string_view("12:00\0:00", 9)), nullptr);
  EXPECT_EQ(GWTime::timeWithString(plist::Value(1200)), nullptr);
  EXPECT_EQ(GWTime::midnight()->seconds(), 0);
  EXPECT_EQ(text(GWTime::timeWithString("-1:+2:3")), "-1:02:03");
  EXPECT_EQ(GWTime::timeWithString(static_cast<const char*>(nullptr)), nullptr);
}

TEST(GWTimeTest, StepsWrapThroughTheDay) {
  struct Case {
    const char* time;
    const char* before;
    const char* after;
  } cases[] = {{"00:00:00", "23:59:59", "00:00:01"},
               {"23:59:59", "23:59:58", "00:00:00"},
               {"10:00:00", "09:59:59", "10:00:01"},
               {"10:59:59", "10:59:58", "11:00:00"},
               {"10:20:00", "10:19:59", "10:20:01"}};
  for (const Case& c : cases) {
    GWTimeRef time = GWTime::timeWithString(std::string_view(c.time));
    EXPECT_EQ(text(time->justBefore()), c.before) << c.time;
    EXPECT_EQ(text(time->justAfter()), c.after) << c.time;
  }
}

TEST(GWTimeTest, IntervalSignIsTheReverseOfItsName) {
  GWTimeRef ten = GWTime::initWithHour(10, 0, 0);
  GWTimeRef nine = GWTime::initWithHour(9, 0, 0);
  EXPECT_EQ(ten->timeIntervalSinceTime(*nine), -3600);
  EXPECT_EQ(nine->timeIntervalSinceTime(*ten), 3600);
  EXPECT_EQ(ten->compare(*nine), 1);
  EXPECT_TRUE(GWTime::initWithHour(0, 60, 0)->isEqual(*GWTime::initWithHour(1, 0, 0)));
}

TEST(GWTimeRangeTest, CompareLooksAtStartsOnlyButEqualityAtBothEnds) {
  auto a = GWTimeRange::timeRangeWithStartTime(GWTime::initWithHour(1, 0, 0),
                                               GWTime::initWithHour(2, 0, 0));
  auto b = GWTimeRange::timeRangeWithStartTime(GWTime::initWithHour(1, 0, 0),
                                               GWTime::initWithHour(5, 0, 0));
  EXPECT_EQ(a->compare(*b), 0);
  EXPECT_FALSE(a->isEqual(*b));
  EXPECT_EQ(a->description(), "start: 01:00:00 end: 02:00:00");
}

TEST(GWTimeRangeTest, DictionaryFormNeedsBothKeys) {
  auto range = GWTimeRange::timeRangeWithDictionary(
      plist::Value::newDictionary({{"start", "21:00:00"}, {"end", "7:00"}}));
  ASSERT_NE(range, nullptr);
  EXPECT_EQ(range->plistRepresentation(),
            plist::Value::newDictionary({{"start", "21:00:00"}, {"end", "07:00:00"}}));
  EXPECT_EQ(GWTimeRange::timeRangeWithDictionary(plist::Value::newDictionary({{"start", "1:0:0"}})),
            nullptr);
  EXPECT_EQ(GWTimeRange::timeRangeWithDictionary(plist::Value("01:00:00")), nullptr);
}

TEST(DateTimeAdditionsTest, MidnightOfOwnDayAndOfTomorrow) {
  gwtest::ScopedTimeZone zone("America/New_York");
  plist::Date march3 = time::dateFromLocalTime(2026, 3, 3, 17, 45, 12);
  EXPECT_EQ(midnightDate(march3), time::dateFromLocalTime(2026, 3, 3, 0, 0, 0));
  EXPECT_EQ(text(timeValue(march3)), "17:45:12");

  plist::Date before = plist::Date::now();
  plist::Date tomorrow = midnightDate();
  EXPECT_EQ(text(timeValue(tomorrow)), "00:00:00");
  EXPECT_GT(tomorrow, before);
  EXPECT_LE(tomorrow.secondsSinceReferenceDate - before.secondsSinceReferenceDate, 25 * 3600.0);
  EXPECT_EQ(midnightDate(tomorrow), tomorrow);
}

TEST(DateTimeAdditionsTest, DateValueIsTodayAtThatTime) {
  gwtest::ScopedTimeZone zone("Australia/Lord_Howe");
  time::LocalComponents today = time::localComponents(plist::Date::now());
  plist::Date date = GWTime::initWithHour(13, 14, 15)->dateValue();
  time::LocalComponents c = time::localComponents(date);
  EXPECT_EQ(c.day, today.day);
  EXPECT_EQ(c.month, today.month);
  EXPECT_EQ(text(timeValue(date)), "13:14:15");
}

TEST(DateTimeAdditionsTest, ApproximateEqualityIsTheSingleFloatStep) {
  plist::Date step = plist::Date::fromUnixTime(1700000000.0);  // a multiple of 128
  EXPECT_TRUE(approximatelyEqualTo(step, plist::Date::fromUnixTime(1700000000.0 + 63)));
  EXPECT_TRUE(approximatelyEqualTo(step, plist::Date::fromUnixTime(1700000000.0 - 63)));
  EXPECT_FALSE(approximatelyEqualTo(step, plist::Date::fromUnixTime(1700000000.0 + 65)));
}

}  // namespace
}  // namespace gw
