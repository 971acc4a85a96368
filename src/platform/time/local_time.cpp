// Local calendar arithmetic over localtime_r and timegm. The wall-clock time is handled as "wall
// seconds": the count timegm gives for the components, as if the local zone were UTC. An instant t
// shows wall time W exactly when W = t + offset(t), so resolving W means finding the offsets that
// satisfy this; the zone's offsets a day before and a day after W are the only candidates, since no
// zone changes its offset twice within a day.
#include "platform/time/local_time.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace gw::time {
namespace {

constexpr std::int64_t kDay = 86400;

std::int64_t floorSeconds(double unixSeconds) { return std::int64_t(std::floor(unixSeconds)); }

long offsetAt(std::int64_t unixSeconds) {
  time_t t = time_t(unixSeconds);
  struct tm parts {};
  if (!localtime_r(&t, &parts)) return 0;
  return parts.tm_gmtoff;
}

std::int64_t wallSeconds(int year, int month, int day, int hour, int minute, std::int64_t second) {
  struct tm parts {};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  // timegm normalises the seconds field; keep it in int range by moving whole days into mday.
  std::int64_t days = second / kDay;
  std::int64_t rest = second % kDay;
  if (rest < 0) {
    rest += kDay;
    days -= 1;
  }
  parts.tm_mday += int(days);
  parts.tm_sec = int(rest);
  return std::int64_t(timegm(&parts));
}

// The first instant in (before, after] whose offset is no longer the one in force at `before`:
// the moment of the change.
std::int64_t changeInstant(std::int64_t before, std::int64_t after) {
  long startOffset = offsetAt(before);
  while (after - before > 1) {
    std::int64_t middle = before + (after - before) / 2;
    if (offsetAt(middle) == startOffset) {
      before = middle;
    } else {
      after = middle;
    }
  }
  return after;
}

std::int64_t resolveWallSeconds(std::int64_t wall, double fraction,
                                std::optional<double> notBeforeUnix) {
  long offsetBefore = offsetAt(wall - kDay);
  long offsetAfter = offsetAt(wall + kDay);
  std::vector<std::int64_t> matches;
  for (long offset : {offsetBefore, offsetAfter}) {
    std::int64_t instant = wall - offset;
    if (offsetAt(instant) == offset &&
        std::find(matches.begin(), matches.end(), instant) == matches.end()) {
      matches.push_back(instant);
    }
  }
  if (matches.empty()) {
    // Skipped: with the old offset the time lands after the change, with the new one before it.
    std::int64_t early = wall - offsetAfter;
    std::int64_t late = wall - offsetBefore;
    if (early > late) std::swap(early, late);
    return changeInstant(early, late);
  }
  std::sort(matches.begin(), matches.end());
  if (notBeforeUnix) {
    for (std::int64_t instant : matches) {
      if (double(instant) + fraction >= *notBeforeUnix) return instant;
    }
  }
  return matches.front();
}

}  // namespace

LocalComponents localComponents(plist::Date date) {
  double unix = date.unixTime();
  std::int64_t whole = floorSeconds(unix);
  time_t t = time_t(whole);
  struct tm parts {};
  LocalComponents components;
  if (!localtime_r(&t, &parts)) return components;
  components.year = parts.tm_year + 1900;
  components.month = parts.tm_mon + 1;
  components.day = parts.tm_mday;
  components.hour = parts.tm_hour;
  components.minute = parts.tm_min;
  components.second = parts.tm_sec;
  components.weekday = parts.tm_wday;
  components.fraction = unix - double(whole);
  components.utcOffsetSeconds = parts.tm_gmtoff;
  return components;
}

plist::Date dateFromLocalTime(int year, int month, int day, int hour, int minute, int second,
                              std::optional<plist::Date> notBefore) {
  std::optional<double> bound;
  if (notBefore) bound = notBefore->unixTime();
  std::int64_t wall = wallSeconds(year, month, day, hour, minute, second);
  return plist::Date::fromUnixTime(double(resolveWallSeconds(wall, 0, bound)));
}

plist::Date atTimeOfDay(plist::Date date, int days, std::int64_t secondsOfDay) {
  LocalComponents c = localComponents(date);
  std::int64_t wall = wallSeconds(c.year, c.month, c.day + days, 0, 0, secondsOfDay);
  std::int64_t instant = resolveWallSeconds(wall, c.fraction, date.unixTime());
  return plist::Date::fromUnixTime(double(instant) + c.fraction);
}

plist::Date addingDays(plist::Date date, int days) {
  LocalComponents c = localComponents(date);
  return atTimeOfDay(date, days, c.hour * 3600 + c.minute * 60 + c.second);
}

plist::Date startOfDay(plist::Date date) {
  LocalComponents c = localComponents(date);
  return dateFromLocalTime(c.year, c.month, c.day, 0, 0, 0);
}

}  // namespace gw::time
