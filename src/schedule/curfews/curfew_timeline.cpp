#include "schedule/curfews/curfew_timeline.h"

#include <cmath>

#include "platform/time/local_time.h"

namespace gw::curfews {
namespace {

constexpr std::int32_t kDaySeconds = 86400;
constexpr std::int32_t kLastSecond = kDaySeconds - 1;
constexpr std::int64_t kWindow = 8 * std::int64_t(kDaySeconds);

}  // namespace

CurfewTimeline::CurfewTimeline(const std::array<std::vector<GWTimeRangeRef>, 7>& ranges) {
  for (std::size_t day = 0; day < ranges.size(); ++day) {
    for (const GWTimeRangeRef& range : ranges[day]) {
      if (!range || !range->startTime() || !range->endTime()) continue;
      std::int32_t start = range->startTime()->seconds();
      std::int32_t end = range->endTime()->seconds();
      if (end == kLastSecond) end = kDaySeconds;
      if (start < 0 || end > kDaySeconds || start >= end) continue;
      spans_[day].emplace_back(start, end);
    }
  }
}

CurfewTimeline::Wall CurfewTimeline::wallAt(std::int64_t instant) {
  time::LocalComponents local = time::localComponents(plist::Date{double(instant)});
  return {local.weekday, local.hour * 3600 + local.minute * 60 + local.second,
          local.utcOffsetSeconds};
}

// The first instant in (from, to] whose zone offset is no longer `offset`; `to` has another one.
std::int64_t CurfewTimeline::firstOffsetChange(std::int64_t from, std::int64_t to, long offset) {
  while (to - from > 1) {
    std::int64_t middle = from + (to - from) / 2;
    if (wallAt(middle).offset == offset) {
      from = middle;
    } else {
      to = middle;
    }
  }
  return to;
}

bool CurfewTimeline::curfewed(const Wall& wall) const {
  for (const auto& [start, end] : spans_[std::size_t(wall.weekday) % 7]) {
    if (start <= wall.second && wall.second < end) return true;
  }
  return false;
}

// The next second of the day after wall.second at which a range starts or ends; midnight when
// none does.
std::int64_t CurfewTimeline::nextBorder(const Wall& wall) const {
  std::int64_t border = kDaySeconds;
  for (const auto& [start, end] : spans_[std::size_t(wall.weekday) % 7]) {
    if (start > wall.second && start < border) border = start;
    if (end > wall.second && end < border) border = end;
  }
  return border;
}

bool CurfewTimeline::isCurfewedAt(plist::Date date) const {
  return curfewed(wallAt(std::int64_t(std::floor(date.secondsSinceReferenceDate))));
}

std::optional<plist::Date> CurfewTimeline::firstInstant(plist::Date from, bool wanted) const {
  if (!std::isfinite(from.secondsSinceReferenceDate)) return std::nullopt;
  double whole = std::floor(from.secondsSinceReferenceDate);
  double fraction = from.secondsSinceReferenceDate - whole;
  std::int64_t instant = std::int64_t(whole);
  const std::int64_t limit = instant + kWindow;
  Wall wall = wallAt(instant);
  if (curfewed(wall) == wanted) return from;
  while (instant < limit) {
    // Within one offset the wall clock runs with the instants; at a change it jumps, and the
    // state is read again at the first instant of the new offset.
    std::int64_t next = instant + (nextBorder(wall) - wall.second);
    Wall there = wallAt(next);
    if (there.offset != wall.offset) {
      next = firstOffsetChange(instant, next, wall.offset);
      there = wallAt(next);
    }
    instant = next;
    wall = there;
    if (instant >= limit) break;
    if (curfewed(wall) == wanted) return plist::Date{double(instant) + fraction};
  }
  return std::nullopt;
}

}  // namespace gw::curfews
