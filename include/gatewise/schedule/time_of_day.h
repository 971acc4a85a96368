// Times of day, time ranges, and the date operations that join them to calendar dates.
//
// GWTime is an immutable time of day in whole seconds with no date; GWTimeRange an immutable pair
// of them. Both are stored in property lists as text ("%02d:%02d:%02d") and a {"start", "end"}
// dictionary. Nothing here checks ranges: a time of 25:70:99 is kept as given, a range may start
// after it ends. Objects are shared through std::shared_ptr and may be read from any thread.
// Initialisers that can fail are static factories that return nullptr (the design's nil).
//
// The date operations work on the Gregorian calendar in the process's time zone (TZ, as tzset()
// last read it).
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace gw {

class GWTime;
class GWTimeRange;
using GWTimeRef = std::shared_ptr<GWTime>;
using GWTimeRangeRef = std::shared_ptr<GWTimeRange>;

class GW_EXPORT GWTime : public GWObject {
 public:
  GWTime(std::int32_t hour, std::int32_t minute, std::int32_t second)
      : _hour(hour), _minute(minute), _second(second) {}

  static GWTimeRef initWithHour(std::int32_t hour, std::int32_t minute, std::int32_t second);
  // Scans "%d:%d:%d"; components the text lacks are 0. nullptr for text with no C form (an
  // embedded NUL byte).
  static GWTimeRef initWithString(std::string_view text);
  static GWTimeRef timeWithString(std::string_view text) { return initWithString(text); }
  static GWTimeRef timeWithString(const std::string& text) { return initWithString(text); }
  // nullptr for a null text.
  static GWTimeRef timeWithString(const char* text) {
    return text ? initWithString(std::string_view(text)) : nullptr;
  }
  // nullptr unless value is a string.
  static GWTimeRef timeWithString(const plist::Value& value);
  static GWTimeRef midnight();

  std::int32_t hour() const { return _hour; }
  std::int32_t minute() const { return _minute; }
  std::int32_t second() const { return _second; }

  // hour x 3600 + minute x 60 + second: every comparison and difference goes through it.
  std::int32_t seconds() const;
  // -1, 0 or 1 by seconds().
  int compare(const GWTime& other) const;
  bool isEqual(const GWTime& other) const { return compare(other) == 0; }
  bool isEqual(const GWObject& other) const override;
  std::string stringValue() const;
  std::string description() const override { return stringValue(); }
  // Today's local date at this time of day.
  plist::Date dateValue() const;
  // other.seconds() - seconds(): positive when `other` is later. Callers rely on this sign.
  std::int32_t timeIntervalSinceTime(const GWTime& other) const;
  // One second earlier or later, wrapping through the day ("00:00:00" <-> "23:59:59").
  GWTimeRef justBefore() const;
  GWTimeRef justAfter() const;

 private:
  std::int32_t _hour;
  std::int32_t _minute;
  std::int32_t _second;
};

class GW_EXPORT GWTimeRange : public GWObject {
 public:
  GWTimeRange(GWTimeRef startTime, GWTimeRef endTime)
      : _startTime(std::move(startTime)), _endTime(std::move(endTime)) {}

  // nullptr when either time is missing.
  static GWTimeRangeRef initWithStartTime(GWTimeRef startTime, GWTimeRef endTime);
  static GWTimeRangeRef timeRangeWithStartTime(GWTimeRef startTime, GWTimeRef endTime) {
    return initWithStartTime(std::move(startTime), std::move(endTime));
  }
  // nullptr unless dictionary is a dictionary whose "start" and "end" are strings.
  static GWTimeRangeRef initWithDictionary(const plist::Value& dictionary);
  static GWTimeRangeRef timeRangeWithDictionary(const plist::Value& dictionary) {
    return initWithDictionary(dictionary);
  }

  // A new mutable {"start", "end"} dictionary of the two texts.
  plist::Value plistRepresentation() const;
  const GWTimeRef& startTime() const { return _startTime; }
  const GWTimeRef& endTime() const { return _endTime; }
  // By start times only: ranges with equal starts compare equal whatever their ends.
  int compare(const GWTimeRange& other) const { return _startTime->compare(*other._startTime); }
  bool isEqual(const GWTimeRange& other) const;
  bool isEqual(const GWObject& other) const override;
  // "start: %@ end: %@"
  std::string description() const override;

 private:
  GWTimeRef _startTime;
  GWTimeRef _endTime;
};

// Date category GWTimeAdditions: instance operations on a date.
// The date's local time of day; fractions of a second are dropped.
GW_EXPORT GWTimeRef timeValue(plist::Date date);
// The start of the date's own local day.
GW_EXPORT plist::Date midnightDate(plist::Date date);
// Both dates' seconds since 1970, as single-precision floats, floored and compared: at present-day
// magnitudes this means "within the same 128-second float step". The coarseness is intended.
GW_EXPORT bool approximatelyEqualTo(plist::Date date, plist::Date other);

// Date category GWExtras, class operation: the next midnight, the start of tomorrow. Unlike
// midnightDate(date), which gives the start of the date's own day.
GW_EXPORT plist::Date midnightDate();

// Local date text "YYYY-MM-DD HH:MM:SS" for tools and logs, in the time zone of TZ. Parsing
// resolves skipped and repeated times as the calendar arithmetic does (a skipped time is the
// moment the clocks jumped; a repeated one its first occurrence); nullopt for other text.
GW_EXPORT std::optional<plist::Date> dateFromLocalString(std::string_view text);
// Fractions of a second are dropped.
GW_EXPORT std::string localStringFromDate(plist::Date date);

}  // namespace gw
