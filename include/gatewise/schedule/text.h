// Texts of the time-limit model: durations, clock times, time spans and day names.
//
// GWTimeDurationString builds a localised phrase ("1 hour and 1 second") from the library's own
// string table (resources/<Language>.lproj/Localizable.strings; English built in as the fallback).
// The GWUtilities functions make compact clock-style durations, 12-hour clock times and spans,
// and day names by day index (0 = Monday ... 6 = Sunday): short and singular names come from the
// week-data locale (gatewise/schedule/calendar.h) through ICU's date-format symbols, plural names
// are always English. No rounding anywhere: 3601 seconds are one hour and one second.
// GWUtilities is a namespace that other headers reopen with their own operations. All functions
// may be called from any thread; shortDayStringForIndex and singularDayStringForIndex throw
// gw::GWException ("GWUtilities") for an index above 6.
#pragma once

#include <gatewise/export.h>

#include <cstdint>
#include <string>

namespace gw {

GW_EXPORT std::string GWTimeDurationString(double seconds);

namespace GWUtilities {

GW_EXPORT std::string timeDurationStringForSeconds(std::int32_t seconds);
// "1:02:05" (with seconds) or "1:02"; 45 seconds give ":45" or the empty text.
GW_EXPORT std::string shortTimeDurationStringForSeconds(std::int32_t seconds, bool includeSeconds);
// "12 AM", "1 AM" ... "Noon", "1 PM" ... "11 PM".
GW_EXPORT std::string timeStringWithHourIndex(std::int32_t hour);
// "9:05" in 24-hour form, else "9:05 AM"; hour 12 is "12:00 PM", hour 24 "12:00 AM".
GW_EXPORT std::string timeStringWithHourIndex(std::int32_t hour, std::int32_t minute,
                                              bool twentyFour);
// "9:00PM - 7:00AM". Here 12 o'clock is written with "AM", on purpose.
GW_EXPORT std::string timeSpanStringWithFromHour(std::int32_t fromHour, std::int32_t fromMinute,
                                                 std::int32_t toHour, std::int32_t toMinute);
GW_EXPORT std::string shortDayStringForIndex(std::int32_t index);
GW_EXPORT std::string singularDayStringForIndex(std::int32_t index);
// "Mondays" ... "Sundays"; "" outside 0..6.
GW_EXPORT std::string pluralDayStringForIndex(std::int32_t index);

}  // namespace GWUtilities
}  // namespace gw
