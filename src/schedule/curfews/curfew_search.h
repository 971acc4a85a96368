// The two searches over one day's sorted curfew ranges that the date queries and the editor's
// read-back are built on (internal to GWCurfews).
#pragma once

#include <gatewise/schedule/time_of_day.h>

#include <vector>

namespace gw::curfews {

// The first curfew moment of the day: with only `after`, the first start later than it, or `after`
// itself when `includeMedial` and it lies inside a range; with both bounds, the first start later
// than `after` and earlier than `before`; with only `before`, the first start earlier than it;
// with neither, the first start. nullptr when there is none.
GWTimeRef firstCurfew(const std::vector<GWTimeRangeRef>& ranges, const GWTime* after,
                      const GWTime* before, bool includeMedial);

// The first free moment of the day at or after `after` (midnight when null). A range's end is its
// first free second, except "23:59:59", which runs into the next day: nullptr when the day is
// curfewed to its end.
GWTimeRef firstFree(const std::vector<GWTimeRangeRef>& ranges, const GWTime* after);

}  // namespace gw::curfews
