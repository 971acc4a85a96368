#include "schedule/curfews/curfew_search.h"

namespace gw::curfews {
namespace {

bool earlier(const GWTime& a, const GWTime& b) { return a.compare(b) < 0; }

}  // namespace

GWTimeRef firstCurfew(const std::vector<GWTimeRangeRef>& ranges, const GWTime* after,
                      const GWTime* before, bool includeMedial) {
  for (const GWTimeRangeRef& range : ranges) {
    const GWTimeRef& start = range->startTime();
    const GWTimeRef& end = range->endTime();
    if (after && !before) {
      if (earlier(*after, *start)) return start;
      if (includeMedial && earlier(*after, *end)) {
        return GWTime::initWithHour(after->hour(), after->minute(), after->second());
      }
    } else if (after && before) {
      if (!earlier(*after, *start)) continue;  // starts at or before `after`
      if (earlier(*start, *before)) return start;
    } else if (!before || earlier(*start, *before)) {
      return start;
    }
  }
  return nullptr;
}

GWTimeRef firstFree(const std::vector<GWTimeRangeRef>& ranges, const GWTime* after) {
  GWTimeRef free = after ? GWTime::initWithHour(after->hour(), after->minute(), after->second())
                         : GWTime::midnight();
  if (ranges.empty()) return free;
  for (const GWTimeRangeRef& range : ranges) {
    if (after && earlier(*range->endTime(), *after)) continue;
    if (earlier(*free, *range->startTime())) return free;
    free = range->endTime();
  }
  static const GWTime kMidnight(0, 0, 0);
  static const GWTime kLastSecond(23, 59, 59);
  if (free->isEqual(kMidnight) || free->isEqual(kLastSecond)) return nullptr;
  return free;
}

}  // namespace gw::curfews
