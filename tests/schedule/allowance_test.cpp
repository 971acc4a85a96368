#include <gatewise/schedule/allowance.h>
#include <gatewise/schedule/calendar.h>
#include <gtest/gtest.h>
#include <time.h>

#include "support/time_zone.h"

namespace gw {
namespace {

class AllowanceTest : public ::testing::Test {
 protected:
  void TearDown() override { setWeekDataLocale(""); }
  static GWAllowanceRef spanning(std::int32_t from, std::int32_t to) {
    GWAllowanceRef allowance = GWAllowance::allowance();
    allowance->setFromDay(from);
    allowance->setToDay(to);
    return allowance;
  }
};

TEST_F(AllowanceTest, DefaultIsTwoHoursADayOnTheLocalWorkDays) {
  setWeekDataLocale("de_DE");
  GWAllowanceRef monday = GWAllowance::defaultAllowance();
  EXPECT_EQ(monday->fromDay(), 0);
  EXPECT_EQ(monday->toDay(), 4);
  EXPECT_EQ(monday->span(), 0);
  EXPECT_EQ(monday->timeLimitSeconds(), 7200);
  EXPECT_EQ(monday->effectivity(), GWEffectiveWeekdays);
  EXPECT_FALSE(monday->plistRepresentation()->contains("tag"));

  // Sunday to Thursday wraps past Sunday: stored as 6..3, in effect on no day at all.
  setWeekDataLocale("he_IL");
  GWAllowanceRef sunday = GWAllowance::defaultAllowance();
  EXPECT_EQ(sunday->fromDay(), 6);
  EXPECT_EQ(sunday->toDay(), 3);
  EXPECT_EQ(sunday->effectivity(), GWEffectiveWeekdays);
  for (std::int32_t day = 0; day < 7; ++day) EXPECT_FALSE(sunday->dayIsInEffect(day)) << day;
}

TEST_F(AllowanceTest, EffectivityTriesEveryDayThenWeekendThenWorkDaysThenSingleDays) {
  setWeekDataLocale("de_DE");
  EXPECT_EQ(spanning(0, 6)->effectivity(), GWEffectiveEveryDay);
  EXPECT_EQ(spanning(5, 6)->effectivity(), GWEffectiveWeekends);
  EXPECT_TRUE(spanning(5, 6)->dayIsInEffect(6));
  EXPECT_FALSE(spanning(5, 6)->dayIsInEffect(4));
  EXPECT_EQ(spanning(2, 2)->effectivity(), GWEffectiveMonday + 2);
  EXPECT_EQ(spanning(1, 3)->effectivity(), GWEffectiveCustom);
  EXPECT_EQ(spanning(7, 7)->effectivity(), GWEffectiveCustom);

  // A one-day weekend on Sunday: the single day reads as the weekend, tested first.
  setWeekDataLocale("hi_IN");
  EXPECT_EQ(spanning(6, 6)->effectivity(), GWEffectiveWeekends);
  EXPECT_EQ(spanning(0, 5)->effectivity(), GWEffectiveWeekdays);
}

TEST_F(AllowanceTest, SetEffectivityRefusesCustomAndIgnoresUnknownValues) {
  setWeekDataLocale("he_IL");
  GWAllowanceRef allowance = spanning(1, 1);
  allowance->setEffectivity(GWEffectiveWeekends);
  EXPECT_EQ(allowance->fromDay(), 4);
  EXPECT_EQ(allowance->toDay(), 5);
  allowance->setEffectivity(GWEffectiveSunday);
  EXPECT_EQ(allowance->fromDay(), 6);
  EXPECT_EQ(allowance->toDay(), 6);
  allowance->setEffectivity(11);
  EXPECT_EQ(allowance->fromDay(), 6);
  try {
    allowance->setEffectivity(GWEffectiveCustom);
    FAIL() << "no exception";
  } catch (const GWException& e) {
    EXPECT_EQ(e.name(), "Illegal parameter");
    EXPECT_EQ(e.reason(),
              "Parameter must not be GWEffectiveEveryDay, GWEffectiveWeekends, or "
              "GWEffectiveWeekdays.");
  }
}

TEST_F(AllowanceTest, WrapsItsOwnCopyOfTheStoredDictionary) {
  plist::Value stored = plist::Value::newDictionary(
      {{"timeLimitSeconds", 3600}, {"fromDay", 0}, {"toDay", 6}, {"span", 1}, {"color", "red"}});
  GWAllowanceRef allowance = GWAllowance::allowanceWithDictionary(stored);
  ASSERT_NE(allowance, nullptr);
  allowance->setTag(7);
  EXPECT_FALSE(stored.dictionary()->contains("tag"));
  EXPECT_EQ(allowance->plistRepresentation()->get("color"), plist::Value("red"));
  std::string text = allowance->description();
  EXPECT_EQ(text, "\n\t\tAllowance: 3600 seconds\n\t\tFrom: 0\n\t\tTo: 6\n\t\tSpan: Weekly\n");
  EXPECT_EQ(GWAllowance::allowanceWithDictionary(plist::Value()), nullptr);
  EXPECT_EQ(GWAllowance::allowance()->timeLimitSeconds(), 0);
}

TEST_F(AllowanceTest, DateInEffectUsesTheLocalDayOfTheWeek) {
  gwtest::ScopedTimeZone zone("Australia/Lord_Howe");
  GWAllowanceRef saturday = GWAllowance::allowance();
  saturday->setEffectivity(GWEffectiveMonday + 5);
  // Friday 14:00 UTC is already Saturday 00:30 on Lord Howe Island (+10:30 in June).
  plist::Date date = plist::Date::fromUnixTime(1781877600.0);  // 2026-06-19 14:00 UTC
  EXPECT_TRUE(saturday->dateIsInEffect(date));
  EXPECT_FALSE(saturday->dateIsInEffect(plist::Date{date.secondsSinceReferenceDate - 3600}));
}

TEST_F(AllowanceTest, WorkDayAndWeekendAllowancesOfAList) {
  setWeekDataLocale("de_DE");
  plist::ArrayRef list;
  allowances::setWeekdayAllowanceSeconds(list, 3600);
  ASSERT_NE(list, nullptr);
  allowances::setWeekendAllowanceSeconds(list, 10800);
  allowances::setWeekdayAllowanceSeconds(list, 5400);
  ASSERT_EQ(list->size(), 2u);
  GWAllowanceRef weekday = allowances::weekdayAllowance(list);
  ASSERT_NE(weekday, nullptr);
  EXPECT_EQ(weekday->timeLimitSeconds(), 5400);
  EXPECT_EQ(weekday->toDay(), 4);
  EXPECT_EQ(allowances::weekendAllowance(list)->fromDay(), 5);

  // A single-day allowance on Monday counts as the work-day one; setting widens it.
  plist::ArrayRef single = plist::Array::make({plist::Value("stray"), spanning(0, 0)});
  allowances::setWeekdayAllowanceSeconds(single, 60);
  EXPECT_EQ(single->size(), 2u);
  EXPECT_EQ(allowances::weekdayAllowance(single)->toDay(), 4);

  allowances::removeWeekdayAllowance(list);
  EXPECT_EQ(allowances::weekdayAllowance(list), nullptr);
  EXPECT_EQ(list->size(), 1u);
  allowances::removeWeekendAllowance(list);
  EXPECT_TRUE(list->empty());
}

}  // namespace
}  // namespace gw
