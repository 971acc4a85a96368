// GWCurfews: for each day of the week, the sorted spans of clock time in which use is not allowed.
//
// The object wraps one mutable dictionary, _dictionary: day key ("sunday" ... "saturday") ->
// mutable array of GWTimeRange objects sorted by start time. A curfew that crosses midnight is
// stored as an evening range ending "23:59:59" on its first day and a morning range starting
// "00:00:00" on the next; "23:59:59" as an end means to the end of the day. The editor's whole-week
// operations spread one work-day and one weekend curfew over the local week
// (gatewise/schedule/calendar.h). Date queries use the local calendar (TZ) and keep wall-clock
// times across daylight-saving changes. An object is not synchronised: share it between threads
// only for reading.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>
#include <gatewise/schedule/time_of_day.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gw {

class GWCurfews;
using GWCurfewsRef = std::shared_ptr<GWCurfews>;

class GW_EXPORT GWCurfews : public GWObject {
 public:
  // init: an empty dictionary, no day keys at all.
  GWCurfews();
  static GWCurfewsRef init();
  // nullptr unless dictionary is a valid XML property list; keeps exactly the stored days, drops
  // range entries that cannot be read.
  static GWCurfewsRef initWithDictionary(const plist::DictionaryRef& dictionary);
  // All seven day keys, each with no ranges.
  static GWCurfewsRef curfews();
  // nullptr unless value is a dictionary; else initWithDictionary.
  static GWCurfewsRef curfewsWithDictionary(const plist::Value& value);

  // A new dictionary: day key -> array of {"start", "end"} dictionaries.
  plist::DictionaryRef plistRepresentation() const;
  // "%@: %@" of each day key and its array, Sunday to Saturday, without separators.
  std::string description() const override;
  const plist::DictionaryRef& dictionary() const { return _dictionary; }

  // The day key of a standard day number (0 = "sunday"), nullptr outside 0..6.
  static const char* keyStringForDayIndex(std::int32_t day);
  // The standard day number of a key, -1 for anything else (exact, case-sensitive).
  static std::int32_t dayIndexForKeyString(std::string_view key);

  // Editing single days. These do not create missing days: call _prep() first.
  void _prep();
  void addTimeRange(const GWTimeRangeRef& range, std::string_view day);
  // nullptr empties the day; else removes each range whose start lies within range (inclusive).
  void removeTimeRangesInRange(const GWTimeRangeRef& range, std::string_view day);
  void removeAllCurfews();
  bool hasCurfews() const;
  // The ranges of a day in order (none for a missing day).
  std::vector<GWTimeRangeRef> timeRangesForDay(std::string_view day) const;

  // The editor's whole-week operations. The eve (the day before the set) and the set's last day
  // take the parts of a curfew that crosses midnight.
  void setWeekdayCurfewStarting(const GWTime& start, const GWTime& end);
  void setWeekendCurfewStarting(const GWTime& start, const GWTime& end);
  void removeWeekdayCurfew();
  void removeWeekendCurfew();
  GWTimeRef weekdayCurfewStartingTime() const;
  GWTimeRef weekdayCurfewEndingTime() const;
  GWTimeRef weekendCurfewStartingTime() const;
  GWTimeRef weekendCurfewEndingTime() const;

  // An instant is curfewed when the local wall-clock time it shows lies in a range of its own
  // weekday (the end of a range is its first free second; "23:59:59" runs into the next day).
  // All three queries hold to that across daylight-saving changes: a curfew wholly inside a
  // skipped time does not happen, one beginning in the gap begins when the clocks jump, and one in
  // a repeated hour happens in both runs of it.
  // The start of the next curfew at or after date (date itself when it lies inside one), or
  // nullopt when none comes within eight days.
  std::optional<plist::Date> nextCurfewDateAfterDate(plist::Date date) const;
  // The next moment at or after date that lies in no curfew, or nullopt within eight days.
  std::optional<plist::Date> nextNonCurfewDateAfterDate(plist::Date date) const;
  // Whether date differs from nextNonCurfewDateAfterDate(date) (also when that is nullopt).
  bool isDateCurfewed(plist::Date date) const;

 private:
  plist::Array* rangesForDay(std::string_view day) const;
  void setCurfew(bool weekend, const GWTime& start, const GWTime& end);
  void removeCurfew(bool weekend);
  GWTimeRef curfewStartingTime(bool weekend) const;
  GWTimeRef curfewEndingTime(bool weekend) const;

  plist::DictionaryRef _dictionary;
};

}  // namespace gw
