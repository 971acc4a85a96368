// 12-hour clock times and spans. The hour-index form says "Noon" and writes 12 o'clock as PM; the
// span form writes it as AM. Both are kept as the editor shows them.
#include <gatewise/format.h>
#include <gatewise/schedule/text.h>

namespace gw::GWUtilities {

std::string timeStringWithHourIndex(std::int32_t hour) {
  if (hour == 12) return "Noon";
  if (hour < 12) return format("%d", hour == 0 ? 12 : hour) + " AM";
  return format("%d", hour - 12) + " PM";
}

std::string timeStringWithHourIndex(std::int32_t hour, std::int32_t minute, bool twentyFour) {
  if (twentyFour) return format("%d:%02d", hour, minute);
  if (hour == 24) return format("%d:%02d AM", 12, minute);
  if (hour < 12) return format("%d:%02d AM", hour == 0 ? 12 : hour, minute);
  return format("%d:%02d PM", hour == 12 ? 12 : hour - 12, minute);
}

std::string timeSpanStringWithFromHour(std::int32_t fromHour, std::int32_t fromMinute,
                                       std::int32_t toHour, std::int32_t toMinute) {
  const char* fromSuffix = "AM";
  std::int32_t from = fromHour == 0 ? 12 : fromHour;
  if (fromHour >= 13) {
    fromSuffix = "PM";
    from = fromHour - 12;
  }
  const char* toSuffix = "AM";
  std::int32_t to = toHour;  // 0 stays 0 here
  if (toHour == 24) {
    to = 12;
  } else if (toHour >= 13) {
    toSuffix = "PM";
    to = toHour - 12;
  }
  return format("%d:%.2d%@ - %d:%.2d%@", from, fromMinute, fromSuffix, to, toMinute, toSuffix);
}

}  // namespace gw::GWUtilities
