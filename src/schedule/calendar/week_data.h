// Reading a locale's week data from ICU's resource bundles (internal to the week calendar).
#pragma once

#include <cstdint>
#include <string>

namespace gw::calendar {

// The ICU locale identifier of a POSIX or ICU locale name ("he_IL.UTF-8" -> "he_IL"); "C" and
// "POSIX" are "en_US_POSIX".
std::string icuLocaleID(const std::string& name);

// Fills info (first work day, weekend onset, work-week length, weekend length) for localeID. The
// locale's calendar table is tried first, then the weekData table of supplementalName (ICU's
// "supplementalData") by the locale's region, its likely region, or the world ("001"). When
// neither yields four days, logs the lookup failure and stores the defaults (Monday, Saturday).
void readWeekData(const std::string& localeID, const char* supplementalName, std::uint8_t info[4]);

}  // namespace gw::calendar
