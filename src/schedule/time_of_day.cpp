// GWTime and GWTimeRange, and the date operations that join times of day to calendar dates.
#include <gatewise/format.h>
#include <gatewise/schedule/time_of_day.h>

#include <cctype>
#include <cmath>
#include <optional>

#include "platform/time/local_time.h"

namespace gw {
namespace {

// One "%d" of scanf: optional white space, an optional sign, at least one digit. Numbers too large
// for 32 bits wrap instead of being undefined.
std::optional<std::int32_t> scanInteger(std::string_view text, std::size_t& at) {
  while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
  bool negative = false;
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    negative = text[at] == '-';
    ++at;
  }
  std::size_t firstDigit = at;
  std::uint32_t value = 0;
  while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
    value = value * 10u + std::uint32_t(text[at] - '0');
    ++at;
  }
  if (at == firstDigit) return std::nullopt;
  return std::int32_t(negative ? 0u - value : value);
}

}  // namespace

GWTimeRef GWTime::initWithHour(std::int32_t hour, std::int32_t minute, std::int32_t second) {
  return std::make_shared<GWTime>(hour, minute, second);
}

GWTimeRef GWTime::initWithString(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return nullptr;
  // "%d:%d:%d": the scan stops at the first part that does not match; the rest stay 0.
  std::int32_t parts[3] = {0, 0, 0};
  std::size_t at = 0;
  for (int i = 0; i < 3; ++i) {
    if (i > 0) {
      if (at >= text.size() || text[at] != ':') break;
      ++at;
    }
    std::optional<std::int32_t> value = scanInteger(text, at);
    if (!value) break;
    parts[i] = *value;
  }
  return initWithHour(parts[0], parts[1], parts[2]);
}

GWTimeRef GWTime::timeWithString(const plist::Value& value) {
  const std::string* text = value.ifString();
  return text ? initWithString(*text) : nullptr;
}

GWTimeRef GWTime::midnight() { return timeWithString(std::string_view("00:00:00")); }

std::int32_t GWTime::seconds() const {
  // Computed in 64 bits and wrapped, so that unchecked out-of-range fields cannot overflow.
  std::int64_t total = std::int64_t(_hour) * 3600 + std::int64_t(_minute) * 60 + _second;
  return std::int32_t(std::uint32_t(std::uint64_t(total)));
}

int GWTime::compare(const GWTime& other) const {
  std::int32_t mine = seconds(), theirs = other.seconds();
  return mine < theirs ? -1 : (mine > theirs ? 1 : 0);
}

bool GWTime::isEqual(const GWObject& other) const {
  auto time = dynamic_cast<const GWTime*>(&other);
  return time && isEqual(*time);
}

std::string GWTime::stringValue() const {
  return format("%02d:%02d:%02d", _hour, _minute, _second);
}

plist::Date GWTime::dateValue() const {
  time::LocalComponents today = time::localComponents(plist::Date::now());
  return time::dateFromLocalTime(today.year, today.month, today.day, _hour, _minute, _second);
}

std::int32_t GWTime::timeIntervalSinceTime(const GWTime& other) const {
  return std::int32_t(std::uint32_t(other.seconds()) - std::uint32_t(seconds()));
}

GWTimeRef GWTime::justBefore() const {
  std::int32_t hour = _hour, minute = _minute, second = _second;
  if (second == 0) {
    second = 59;
    if (minute == 0) {
      minute = 59;
      hour = hour == 0 ? 23 : hour - 1;
    } else {
      minute -= 1;
    }
  } else {
    second -= 1;
  }
  return initWithHour(hour, minute, second);
}

GWTimeRef GWTime::justAfter() const {
  std::int32_t hour = _hour, minute = _minute, second = _second;
  if (second == 59) {
    second = 0;
    if (minute == 59) {
      minute = 0;
      hour = hour == 23 ? 0 : hour + 1;
    } else {
      minute += 1;
    }
  } else {
    second += 1;
  }
  return initWithHour(hour, minute, second);
}

GWTimeRangeRef GWTimeRange::initWithStartTime(GWTimeRef startTime, GWTimeRef endTime) {
  if (!startTime || !endTime) return nullptr;
  return std::make_shared<GWTimeRange>(std::move(startTime), std::move(endTime));
}

GWTimeRangeRef GWTimeRange::initWithDictionary(const plist::Value& dictionary) {
  const plist::Dictionary* entries = dictionary.ifDictionary();
  if (!entries) return nullptr;
  return initWithStartTime(GWTime::timeWithString(entries->get("start")),
                           GWTime::timeWithString(entries->get("end")));
}

plist::Value GWTimeRange::plistRepresentation() const {
  return plist::Value::newDictionary(
      {{"start", _startTime->stringValue()}, {"end", _endTime->stringValue()}});
}

bool GWTimeRange::isEqual(const GWTimeRange& other) const {
  return _startTime->isEqual(*other._startTime) && _endTime->isEqual(*other._endTime);
}

bool GWTimeRange::isEqual(const GWObject& other) const {
  auto range = dynamic_cast<const GWTimeRange*>(&other);
  return range && isEqual(*range);
}

std::string GWTimeRange::description() const {
  return format("start: %@ end: %@", _startTime->stringValue(), _endTime->stringValue());
}

GWTimeRef timeValue(plist::Date date) {
  time::LocalComponents c = time::localComponents(date);
  return GWTime::initWithHour(c.hour, c.minute, c.second);
}

plist::Date midnightDate(plist::Date date) { return time::startOfDay(date); }

bool approximatelyEqualTo(plist::Date date, plist::Date other) {
  float mine = std::floor(float(date.unixTime()));
  float theirs = std::floor(float(other.unixTime()));
  return mine == theirs;
}

plist::Date midnightDate() {
  plist::Date now = plist::Date::now();
  time::LocalComponents today = time::localComponents(now);
  plist::Date lastSecond =
      time::dateFromLocalTime(today.year, today.month, today.day, 23, 59, 59, now);
  double interval = lastSecond.secondsSinceReferenceDate - now.secondsSinceReferenceDate + 1.0;
  return plist::Date{now.secondsSinceReferenceDate + interval};
}

}  // namespace gw
