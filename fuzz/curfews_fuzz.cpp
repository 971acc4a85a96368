// Reads arbitrary bytes as a stored curfews dictionary and runs every query and editing operation
// on it: unchecked, out-of-range or unsorted stored times must never crash, hang or overflow.
#include <gatewise/plist.h>
#include <gatewise/schedule.h>
#include <stdlib.h>
#include <time.h>

#include <cstdint>
#include <optional>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ::setenv("TZ", "Australia/Lord_Howe", 1);  // half-hour changes, both directions
  ::tzset();
  gw::setWeekDataLocale("fa_IR");  // a one-day weekend
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  gw::plist::ReadResult read = gw::plist::readPropertyList(
      std::span<const std::uint8_t>(data, size), gw::plist::ReadOptions{});
  if (!read) return 0;
  gw::GWCurfewsRef curfews = gw::GWCurfews::curfewsWithDictionary(*read.value);
  if (!curfews) return 0;
  // Around the October change to summer time, and an ordinary day.
  for (double unix : {1791041400.0, 1791068400.0, 1781877600.5}) {
    gw::plist::Date date = gw::plist::Date::fromUnixTime(unix);
    // The three queries hold to one rule: the next curfew is curfewed, the next free moment is
    // not, and a date is curfewed exactly when it is its own next curfew.
    std::optional<gw::plist::Date> next = curfews->nextCurfewDateAfterDate(date);
    std::optional<gw::plist::Date> free = curfews->nextNonCurfewDateAfterDate(date);
    bool curfewed = curfews->isDateCurfewed(date);
    if (curfewed != (next == date)) __builtin_trap();
    if (next && !curfews->isDateCurfewed(*next)) __builtin_trap();
    if (free && curfews->isDateCurfewed(*free)) __builtin_trap();
  }
  (void)curfews->weekdayCurfewStartingTime();
  (void)curfews->weekendCurfewEndingTime();
  (void)curfews->description();
  curfews->_prep();
  curfews->setWeekendCurfewStarting(gw::GWTime(22, 0, 0), gw::GWTime(6, 30, 0));
  curfews->removeWeekdayCurfew();
  (void)curfews->plistRepresentation();
  return 0;
}
