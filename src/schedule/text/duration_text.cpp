// Duration texts: the localised phrase and the compact clock form.
#include <gatewise/format.h>
#include <gatewise/schedule/text.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "schedule/text/string_table.h"

namespace gw {
namespace {

struct Unit {
  std::uint64_t seconds;
  const char* singularKey;
  const char* pluralKey;
};

// Largest first: the phrase lists the units in this order.
constexpr Unit kUnits[] = {
    {86400, "TIME_DAY_SINGULAR", "TIME_DAY_PLURAL"},
    {3600, "TIME_HOUR_SINGULAR", "TIME_HOUR_PLURAL"},
    {60, "TIME_MINUTE_SINGULAR", "TIME_MINUTE_PLURAL"},
    {1, "TIME_SECOND_SINGULAR", "TIME_SECOND_PLURAL"},
};

// Whole seconds, fractions dropped; what has no unsigned value (negative, not a number) is 0.
std::uint64_t wholeSeconds(double seconds) {
  if (!(seconds > 0)) return 0;
  if (seconds >= 18446744073709551615.0) return UINT64_MAX;
  return std::uint64_t(seconds);
}

}  // namespace

std::string GWTimeDurationString(double seconds) {
  if (seconds == 0.0) return text::localizedString("TIME_MINUTE_ZERO");
  std::uint64_t rest = wholeSeconds(seconds);
  std::vector<std::string> phrases;
  for (const Unit& unit : kUnits) {
    std::uint64_t count = rest / unit.seconds;
    rest %= unit.seconds;
    if (count == 0) continue;
    phrases.push_back(
        format(text::localizedString(count == 1 ? unit.singularKey : unit.pluralKey), count));
  }
  switch (phrases.size()) {
    case 0:
      return text::localizedString("TIME_SECOND_ZERO");
    case 1:
      return phrases[0];
    case 2:
      return format(text::localizedString("TIME_FORMAT_2"), phrases[0], phrases[1]);
    case 3:
      return format(text::localizedString("TIME_FORMAT_3"), phrases[0], phrases[1], phrases[2]);
    default:
      return format(text::localizedString("TIME_FORMAT_4"), phrases[0], phrases[1], phrases[2],
                    phrases[3]);
  }
}

namespace GWUtilities {

std::string timeDurationStringForSeconds(std::int32_t seconds) {
  return GWTimeDurationString(double(seconds));
}

std::string shortTimeDurationStringForSeconds(std::int32_t seconds, bool includeSeconds) {
  std::string text;
  std::int32_t rest = seconds;
  bool hoursShown = false, minutesShown = false;
  if (seconds >= 86400) {
    text += format("%d:", seconds / 86400);
    rest = seconds % 86400;
  }
  if (rest >= 3600 || seconds >= 86400) {
    // Two digits once a day count stands before the hours.
    text += format(seconds < 86400 ? "%d:" : "%.2d:", rest / 3600);
    rest %= 3600;
    hoursShown = true;
  }
  if (rest >= 60 || hoursShown) {
    text += format(hoursShown ? "%.2d" : "%d", rest / 60);
    if (includeSeconds) text += ":";
    rest %= 60;
    minutesShown = true;
  }
  if (includeSeconds) text += format(minutesShown ? "%.2d" : ":%.2d", rest);
  return text;
}

}  // namespace GWUtilities
}  // namespace gw
