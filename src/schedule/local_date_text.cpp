// Local date text for tools: "YYYY-MM-DD HH:MM:SS" in the time zone of TZ.
#include <gatewise/format.h>
#include <gatewise/schedule/time_of_day.h>

#include <charconv>

#include "platform/time/local_time.h"

namespace gw {
namespace {

// Reads exactly `digits` decimal digits at text[at].
bool readField(std::string_view text, std::size_t at, std::size_t digits, int& value) {
  if (at + digits > text.size()) return false;
  for (std::size_t i = at; i < at + digits; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  std::from_chars(text.data() + at, text.data() + at + digits, value);
  return true;
}

}  // namespace

std::optional<plist::Date> dateFromLocalString(std::string_view text) {
  int year, month, day, hour, minute, second;
  if (text.size() != 19 || text[4] != '-' || text[7] != '-' || text[10] != ' ' || text[13] != ':' ||
      text[16] != ':' || !readField(text, 0, 4, year) || !readField(text, 5, 2, month) ||
      !readField(text, 8, 2, day) || !readField(text, 11, 2, hour) ||
      !readField(text, 14, 2, minute) || !readField(text, 17, 2, second)) {
    return std::nullopt;
  }
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59) {
    return std::nullopt;
  }
  return time::dateFromLocalTime(year, month, day, hour, minute, second);
}

std::string localStringFromDate(plist::Date date) {
  time::LocalComponents c = time::localComponents(date);
  return format("%04d-%02d-%02d %02d:%02d:%02d", c.year, c.month, c.day, c.hour, c.minute,
                c.second);
}

}  // namespace gw
