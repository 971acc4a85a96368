// The editor's whole-week curfews: one curfew for all work days and one for all weekend days,
// spread over the days of the local week. A curfew that crosses midnight puts its evening on the
// eve (the last day of the other set) and on each day of the set but the last, whose evening
// belongs to the other set's curfew.
#include <gatewise/schedule/calendar.h>
#include <gatewise/schedule/curfews.h>

#include <vector>

#include "schedule/curfews/curfew_search.h"

namespace gw {
namespace {

struct DaySet {
  std::vector<const char*> days;  // in order, from the first day of the set
  const char* eve = nullptr;      // the day before the first
};

DaySet daySet(bool weekend) {
  DaySet set;
  std::int32_t length = weekend ? GWWeekendLength() : GWWorkWeekLength();
  for (std::int32_t offset = 0; offset < length; ++offset) {
    const char* key = weekend ? GWWeekendDayWithOffsetKey(offset) : GWWeekdayWithOffsetKey(offset);
    if (key) set.days.push_back(key);
  }
  set.eve = weekend ? GWLastWeekdayKey() : GWLastWeekendDayKey();
  return set;
}

GWTimeRangeRef range(std::int32_t startHour, std::int32_t startMinute, std::int32_t startSecond,
                     const GWTime& end) {
  return GWTimeRange::timeRangeWithStartTime(
      GWTime::initWithHour(startHour, startMinute, startSecond),
      GWTime::initWithHour(end.hour(), end.minute(), end.second()));
}

GWTimeRangeRef range(const GWTime& start, std::int32_t endHour, std::int32_t endMinute,
                     std::int32_t endSecond) {
  return GWTimeRange::timeRangeWithStartTime(
      GWTime::initWithHour(start.hour(), start.minute(), start.second()),
      GWTime::initWithHour(endHour, endMinute, endSecond));
}

// Everything but a morning range that starts at midnight, which belongs to the day's own set.
GWTimeRangeRef wholeDayAfterMidnight() {
  return GWTimeRange::timeRangeWithStartTime(GWTime::initWithHour(0, 0, 1),
                                             GWTime::initWithHour(23, 59, 59));
}

}  // namespace

void GWCurfews::setCurfew(bool weekend, const GWTime& start, const GWTime& end) {
  DaySet set = daySet(weekend);
  if (start.compare(end) <= 0) {
    // Same-day curfew. The eve keeps any evening range of an earlier midnight-crossing curfew.
    GWTimeRangeRef sameDay = range(start, end.hour(), end.minute(), end.second());
    for (const char* day : set.days) {
      removeTimeRangesInRange(nullptr, day);
      addTimeRange(sameDay, day);
    }
    return;
  }
  GWTimeRangeRef evening = range(start, 23, 59, 59);
  GWTimeRangeRef morning = range(0, 0, 0, end);
  if (set.eve) {
    removeTimeRangesInRange(wholeDayAfterMidnight(), set.eve);
    addTimeRange(evening, set.eve);
  }
  for (std::size_t i = 0; i < set.days.size(); ++i) {
    const char* day = set.days[i];
    if (i + 1 < set.days.size()) {
      removeTimeRangesInRange(nullptr, day);
      addTimeRange(morning, day);
      addTimeRange(evening, day);
    } else {
      // The last day's evening is left to the other set's curfew.
      removeTimeRangesInRange(range(0, 0, 0, end), day);
      addTimeRange(morning, day);
    }
  }
}

void GWCurfews::removeCurfew(bool weekend) {
  DaySet set = daySet(weekend);
  if (set.eve) removeTimeRangesInRange(wholeDayAfterMidnight(), set.eve);
  for (std::size_t i = 0; i < set.days.size(); ++i) {
    if (i + 1 < set.days.size()) {
      removeTimeRangesInRange(nullptr, set.days[i]);
    } else {
      removeTimeRangesInRange(
          GWTimeRange::timeRangeWithStartTime(GWTime::midnight(), GWTime::initWithHour(0, 0, 1)),
          set.days[i]);
    }
  }
}

GWTimeRef GWCurfews::curfewStartingTime(bool weekend) const {
  const char* first = weekend ? GWFirstWeekendDayKey() : GWFirstWeekdayKey();
  std::vector<GWTimeRangeRef> ranges =
      first ? timeRangesForDay(first) : std::vector<GWTimeRangeRef>{};
  if (ranges.empty()) return nullptr;
  if (ranges.size() == 1) {
    GWTime midnight(0, 0, 0);
    bool startsAtMidnight = ranges.front()->startTime()->isEqual(midnight);
    return curfews::firstCurfew(ranges, &midnight, nullptr, startsAtMidnight);
  }
  GWTime afterMidnight(0, 0, 1);
  return curfews::firstCurfew(ranges, &afterMidnight, nullptr, false);
}

GWTimeRef GWCurfews::curfewEndingTime(bool weekend) const {
  const char* first = weekend ? GWFirstWeekendDayKey() : GWFirstWeekdayKey();
  std::vector<GWTimeRangeRef> ranges =
      first ? timeRangesForDay(first) : std::vector<GWTimeRangeRef>{};
  return ranges.empty() ? nullptr : ranges.front()->endTime();
}

void GWCurfews::setWeekdayCurfewStarting(const GWTime& start, const GWTime& end) {
  setCurfew(false, start, end);
}
void GWCurfews::setWeekendCurfewStarting(const GWTime& start, const GWTime& end) {
  setCurfew(true, start, end);
}
void GWCurfews::removeWeekdayCurfew() { removeCurfew(false); }
void GWCurfews::removeWeekendCurfew() { removeCurfew(true); }
GWTimeRef GWCurfews::weekdayCurfewStartingTime() const { return curfewStartingTime(false); }
GWTimeRef GWCurfews::weekdayCurfewEndingTime() const { return curfewEndingTime(false); }
GWTimeRef GWCurfews::weekendCurfewStartingTime() const { return curfewStartingTime(true); }
GWTimeRef GWCurfews::weekendCurfewEndingTime() const { return curfewEndingTime(true); }

}  // namespace gw
