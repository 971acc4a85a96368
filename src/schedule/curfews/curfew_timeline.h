// The week's curfews laid over real instants (internal to GWCurfews).
//
// One rule decides every date query: an instant is curfewed when the wall-clock time it shows in
// the local zone lies inside a range of its own weekday. A range runs from its start up to, not
// including, its end; an end of "23:59:59" runs to the end of the day. The queries answer the
// first instant at or after a date at which that holds (or fails), stepping range border by range
// border and stopping at every change of the zone's offset. So a curfew that lies wholly inside a
// time skipped by a change to daylight-saving time does not happen that day, one that begins in
// the gap begins when the clocks jump, and one in an hour the clocks run twice happens twice.
// Ranges whose times are out of range or whose start is not before their end are ignored.
#pragma once

#include <gatewise/plist.h>
#include <gatewise/schedule/time_of_day.h>

#include <array>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace gw::curfews {

class CurfewTimeline {
 public:
  // ranges[d]: the ranges of standard day number d (0 = Sunday).
  explicit CurfewTimeline(const std::array<std::vector<GWTimeRangeRef>, 7>& ranges);

  bool isCurfewedAt(plist::Date date) const;
  // The first instant at or after `from`, within eight days, whose curfew state is `curfewed`; it
  // keeps the fraction of a second that `from` has. nullopt when there is none in that window.
  std::optional<plist::Date> firstInstant(plist::Date from, bool curfewed) const;

 private:
  struct Wall {
    int weekday = 0;
    std::int64_t second = 0;  // of the local day
    long offset = 0;          // from UTC
  };
  static Wall wallAt(std::int64_t instant);
  static std::int64_t firstOffsetChange(std::int64_t from, std::int64_t to, long offset);
  bool curfewed(const Wall& wall) const;
  std::int64_t nextBorder(const Wall& wall) const;

  // [start, end) seconds of the day, per standard day number.
  std::array<std::vector<std::pair<std::int32_t, std::int32_t>>, 7> spans_;
};

}  // namespace gw::curfews
