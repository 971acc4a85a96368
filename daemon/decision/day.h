// Local calendar days as the daemon counts them: usage and overrides are kept per day, under the
// day key "%Y-%m-%d" of the local date (the key the overrides file uses). Days follow TZ, so a
// day on which the clocks change is 23 or 25 hours long.
#pragma once

#include <gatewise/plist.h>

#include <string>

namespace gw::daemon {

std::string dayKeyOf(plist::Date date);
// 0 = Monday ... 6 = Sunday (the day index of allowances).
int dayIndexOf(plist::Date date);
plist::Date startOfDayOf(plist::Date date);
plist::Date startOfNextDay(plist::Date date);

}  // namespace gw::daemon
