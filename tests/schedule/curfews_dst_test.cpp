// The three date queries of GWCurfews against each other around changes of the zone's offset:
// skipped hours, a skipped half hour, a skipped day and repeated hours.
#include <gatewise/schedule/curfews.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/time_zone.h"

namespace gw {
namespace {

using gwtest::utc;

struct Range {
  const char* day;
  const char* start;
  const char* end;
};

struct ZoneChange {
  const char* zone;
  plist::Date change;  // the instant the offset changes
  std::vector<Range> ranges;
};

plist::Date plus(plist::Date date, double seconds) {
  return {date.secondsSinceReferenceDate + seconds};
}

std::string shown(std::optional<plist::Date> date) {
  return date ? std::to_string(std::int64_t(date->unixTime())) : "none";
}

GWCurfewsRef curfewsOf(const std::vector<Range>& ranges) {
  GWCurfewsRef curfews = GWCurfews::curfews();
  for (const Range& range : ranges) {
    curfews->addTimeRange(
        GWTimeRange::timeRangeWithStartTime(GWTime::timeWithString(std::string_view(range.start)),
                                            GWTime::timeWithString(std::string_view(range.end))),
        range.day);
  }
  return curfews;
}

// Minute by minute over six hours on each side of the change: a date is curfewed exactly when
// the next curfew is the date itself and the next free moment is not; the next curfew is
// curfewed, the second before it free, and no sampled minute before it curfewed; the next free
// moment is free and the second before it curfewed.
void expectQueriesAgree(const GWCurfews& curfews, plist::Date change) {
  for (int minute = -360; minute <= 360; ++minute) {
    plist::Date date = plus(change, minute * 60.0);
    SCOPED_TRACE("at " + shown(date));
    bool curfewed = curfews.isDateCurfewed(date);
    std::optional<plist::Date> next = curfews.nextCurfewDateAfterDate(date);
    std::optional<plist::Date> free = curfews.nextNonCurfewDateAfterDate(date);
    EXPECT_EQ(curfewed, next == date) << "next curfew " << shown(next);
    EXPECT_EQ(curfewed, free != date) << "next free " << shown(free);
    if (next && *next != date) {
      EXPECT_TRUE(curfews.isDateCurfewed(*next)) << "next curfew " << shown(next);
      EXPECT_FALSE(curfews.isDateCurfewed(plus(*next, -1))) << "next curfew " << shown(next);
      for (plist::Date probe = plus(date, 60); probe < *next && probe < plus(change, 6 * 3600.0);
           probe = plus(probe, 60)) {
        ASSERT_FALSE(curfews.isDateCurfewed(probe))
            << shown(probe) << " is curfewed before the next curfew " << shown(next);
      }
    }
    if (free && *free != date) {
      EXPECT_FALSE(curfews.isDateCurfewed(*free)) << "next free " << shown(free);
      EXPECT_TRUE(curfews.isDateCurfewed(plus(*free, -1))) << "next free " << shown(free);
    }
  }
}

TEST(CurfewsDaylightSavingTest, TheThreeQueriesAgreeMinuteByMinuteAroundEachChange) {
  const ZoneChange changes[] = {
      // Clocks go from 02:00 EST to 03:00 EDT (07:00 UTC).
      {"America/New_York", utc(2026, 3, 8, 7, 0), {{"sunday", "02:30:00", "03:30:00"}}},
      {"America/New_York", utc(2026, 3, 8, 7, 0), {{"sunday", "02:10:00", "02:50:00"}}},
      {"America/New_York",
       utc(2026, 3, 8, 7, 0),
       {{"saturday", "23:00:00", "23:59:59"}, {"sunday", "00:00:00", "02:20:00"}}},
      // Clocks go from 02:00 EDT back to 01:00 EST (06:00 UTC): 01:00-02:00 runs twice.
      {"America/New_York", utc(2026, 11, 1, 6, 0), {{"sunday", "01:15:00", "01:45:00"}}},
      {"America/New_York", utc(2026, 11, 1, 6, 0), {{"sunday", "00:30:00", "01:30:00"}}},
      // Half-hour changes: 02:00 -> 02:30 (+10:30 -> +11:00) and 02:00 -> 01:30 back.
      {"Australia/Lord_Howe", utc(2026, 10, 3, 15, 30), {{"sunday", "02:10:00", "02:20:00"}}},
      {"Australia/Lord_Howe", utc(2026, 10, 3, 15, 30), {{"sunday", "02:15:00", "04:00:00"}}},
      {"Australia/Lord_Howe", utc(2026, 4, 4, 15, 0), {{"sunday", "01:40:00", "01:50:00"}}},
      // Friday 30 December 2011 did not happen in Apia: Thursday 23:59:59 (-10:00) was followed
      // by Saturday 00:00 (+14:00), at 10:00 UTC.
      {"Pacific/Apia",
       utc(2011, 12, 30, 10, 0),
       {{"thursday", "22:00:00", "23:59:59"},
        {"friday", "00:00:00", "03:00:00"},
        {"saturday", "01:00:00", "02:00:00"}}},
      {"Pacific/Apia", utc(2011, 12, 30, 10, 0), {{"friday", "10:00:00", "12:00:00"}}},
  };
  for (const ZoneChange& change : changes) {
    SCOPED_TRACE(std::string(change.zone) + " " + change.ranges.front().day + " " +
                 change.ranges.front().start);
    gwtest::ScopedTimeZone zone(change.zone);
    expectQueriesAgree(*curfewsOf(change.ranges), change.change);
  }
}

TEST(CurfewsDaylightSavingTest, SkippedAndRepeatedTimesFollowTheWallClock) {
  {
    gwtest::ScopedTimeZone zone("America/New_York");
    // Begins in the gap: in force from the jump, 03:00 EDT.
    GWCurfewsRef partly = curfewsOf({{"sunday", "02:30:00", "03:30:00"}});
    EXPECT_EQ(partly->nextCurfewDateAfterDate(utc(2026, 3, 8, 5, 0)), utc(2026, 3, 8, 7, 0));
    EXPECT_EQ(partly->nextNonCurfewDateAfterDate(utc(2026, 3, 8, 7, 0)), utc(2026, 3, 8, 7, 30));
    // Wholly in the gap: not that night, but a week later at 02:10 EDT.
    GWCurfewsRef wholly = curfewsOf({{"sunday", "02:10:00", "02:50:00"}});
    EXPECT_EQ(wholly->nextCurfewDateAfterDate(utc(2026, 3, 8, 5, 0)), utc(2026, 3, 15, 6, 10));
    // In the repeated hour: from the end of the first run, the second run comes next.
    GWCurfewsRef repeated = curfewsOf({{"sunday", "01:15:00", "01:45:00"}});
    EXPECT_EQ(repeated->nextCurfewDateAfterDate(utc(2026, 11, 1, 5, 50)), utc(2026, 11, 1, 6, 15));
    EXPECT_EQ(repeated->nextNonCurfewDateAfterDate(utc(2026, 11, 1, 6, 20)),
              utc(2026, 11, 1, 6, 45));
  }
  {
    gwtest::ScopedTimeZone zone("Pacific/Apia");
    GWCurfewsRef skippedDay = curfewsOf({{"friday", "10:00:00", "12:00:00"}});
    // From Thursday 29 December 12:00 (-10:00) the next Friday is 6 January 2012 (+14:00).
    EXPECT_EQ(skippedDay->nextCurfewDateAfterDate(utc(2011, 12, 29, 22, 0)),
              utc(2012, 1, 5, 20, 0));
  }
}

}  // namespace
}  // namespace gw
