// Dates on the local calendar: the Gregorian calendar in the process's time zone (TZ).
//
// A date is a gw::plist::Date, seconds since 2001-01-01 00:00:00 UTC, with any fraction. These
// helpers turn it into local wall-clock components and back, through localtime_r and timegm, so
// they follow TZ as the C library reads it: a program (or test) that changes TZ calls tzset()
// before the next call here. Callable from any thread; they keep no state of their own.
//
// Wall-clock times that do not name exactly one instant are resolved by one fixed rule:
// - a skipped time (inside the gap of a change to daylight-saving time, such as 02:30 on the
//   spring-forward night in Europe/Berlin) resolves to the instant the clocks jumped, the first
//   moment whose wall-clock time is at or after it (03:00 in that example). A schedule that begins
//   or ends in the gap thus takes effect as soon as the clock shows a later time;
// - a repeated time (in the hour run twice when clocks go back) resolves to its earliest
//   occurrence that is not before a given lower bound, and to the first occurrence when no bound
//   is given.
#pragma once

#include <gatewise/plist.h>

#include <cstdint>
#include <optional>

namespace gw::time {

struct LocalComponents {
  int year = 2001;  // common era
  int month = 1;    // 1-12
  int day = 1;      // 1-31
  int hour = 0;
  int minute = 0;
  int second = 0;
  int weekday = 1;      // 0 = Sunday ... 6 = Saturday
  double fraction = 0;  // of the second, 0 <= fraction < 1
  long utcOffsetSeconds = 0;
};

// The wall-clock components of a date in the local time zone.
LocalComponents localComponents(plist::Date date);

// The instant of a wall-clock time. Out-of-range fields are carried over as timegm does (day 32,
// second 90000...). notBefore picks among the occurrences of a repeated time (see above).
plist::Date dateFromLocalTime(int year, int month, int day, int hour, int minute, int second,
                              std::optional<plist::Date> notBefore = std::nullopt);

// The same wall-clock time (and fraction) `days` calendar days later (earlier when negative),
// then `secondsOfDay` seconds past that day's midnight when given: calendar arithmetic that keeps
// the wall clock across daylight-saving changes. Repeated results resolve to the first occurrence
// not before the date itself.
plist::Date addingDays(plist::Date date, int days);
plist::Date atTimeOfDay(plist::Date date, int days, std::int64_t secondsOfDay);

// The start of the date's own local day.
plist::Date startOfDay(plist::Date date);

}  // namespace gw::time
