// GWAllowance: a quota of use time on a span of days of the week, and the work-day and weekend
// allowances of a limit item's list.
//
// An allowance is a thin wrapper over its own mutable property-list dictionary ("timeLimitSeconds",
// "fromDay", "toDay", "span", "tag"; 32-bit integers, absent keys read 0, other keys kept): every
// property is read from and written to it, so plistRepresentation() is the live stored form. Days
// are day indexes (0 = Monday ... 6 = Sunday); the work week and weekend are the locale's
// (gatewise/schedule/calendar.h). Objects are not synchronised: share them only for reading.
// setEffectivity(GWEffectiveCustom) throws gw::GWException ("Illegal parameter").
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>

#include <cstdint>
#include <memory>
#include <string>

namespace gw {

// The span of days of an allowance in one value.
using GWEffectivity = std::int32_t;
inline constexpr GWEffectivity GWEffectiveEveryDay = 0;  // fromDay 0, toDay 6
inline constexpr GWEffectivity GWEffectiveWeekdays = 1;  // the locale's work days
inline constexpr GWEffectivity GWEffectiveWeekends = 2;  // the locale's weekend
inline constexpr GWEffectivity GWEffectiveMonday = 3;    // 3 ... 9: one day, Monday ... Sunday
inline constexpr GWEffectivity GWEffectiveSunday = 9;
inline constexpr GWEffectivity GWEffectiveCustom = 10;  // any other span; cannot be set

class GWAllowance;
using GWAllowanceRef = std::shared_ptr<GWAllowance>;

class GW_EXPORT GWAllowance : public GWObject {
 public:
  GWAllowance();
  explicit GWAllowance(plist::DictionaryRef dictionary) : _dictionary(std::move(dictionary)) {}

  static GWAllowanceRef init();
  static GWAllowanceRef allowance() { return init(); }
  // Wraps a mutable copy of dictionary; nullptr when it is null (or, for a Value, no dictionary).
  static GWAllowanceRef initWithDictionary(const plist::DictionaryRef& dictionary);
  static GWAllowanceRef initWithDictionary(const plist::Value& dictionary);
  static GWAllowanceRef allowanceWithDictionary(const plist::Value& dictionary) {
    return initWithDictionary(dictionary);
  }
  // Two hours a day on the locale's work days.
  static GWAllowanceRef defaultAllowance();

  // The live dictionary itself, not a copy.
  const plist::DictionaryRef& plistRepresentation() const { return _dictionary; }

  std::int32_t timeLimitSeconds() const { return number("timeLimitSeconds"); }
  std::int32_t fromDay() const { return number("fromDay"); }
  std::int32_t toDay() const { return number("toDay"); }
  std::int32_t tag() const { return number("tag"); }
  // 0: the limit holds for each day ("Daily"); anything else: for the span together ("Weekly").
  std::int32_t span() const { return number("span"); }
  void setTimeLimitSeconds(std::int32_t seconds) { setNumber("timeLimitSeconds", seconds); }
  void setFromDay(std::int32_t day) { setNumber("fromDay", day); }
  void setToDay(std::int32_t day) { setNumber("toDay", day); }
  void setTag(std::int32_t tag) { setNumber("tag", tag); }
  void setSpan(std::int32_t span) { setNumber("span", span); }

  // fromDay <= day <= toDay. A span stored wrapping past Sunday (fromDay > toDay) is in effect on
  // no day at all; spans are stored with from not after to.
  bool dayIsInEffect(std::int32_t day) const;
  // dayIsInEffect of the date's local day of the week.
  bool dateIsInEffect(plist::Date date) const;
  GWEffectivity effectivity() const;
  // Sets fromDay and toDay; values outside 0..10 change nothing; GWEffectiveCustom throws.
  void setEffectivity(GWEffectivity effectivity);

  std::string description() const override;

 private:
  std::int32_t number(const char* key) const;
  void setNumber(const char* key, std::int32_t value);

  plist::DictionaryRef _dictionary;
};

// The work-day and weekend allowances of a limit item's "allowances" list (an array of
// GWAllowance objects; other elements are passed over). An allowance counts as the work-day (the
// weekend) one when its fromDay is the first work day (the first weekend day), whatever its toDay.
namespace allowances {

GW_EXPORT GWAllowanceRef weekdayAllowance(const plist::ArrayRef& list);
GW_EXPORT GWAllowanceRef weekendAllowance(const plist::ArrayRef& list);
// Finds or appends (creating the list when it is null) the allowance, then sets it to the whole
// work week (weekend), daily, of `seconds`.
GW_EXPORT void setWeekdayAllowanceSeconds(plist::ArrayRef& list, std::int32_t seconds);
GW_EXPORT void setWeekendAllowanceSeconds(plist::ArrayRef& list, std::int32_t seconds);
GW_EXPORT void removeWeekdayAllowance(const plist::ArrayRef& list);
GW_EXPORT void removeWeekendAllowance(const plist::ArrayRef& list);

}  // namespace allowances
}  // namespace gw
