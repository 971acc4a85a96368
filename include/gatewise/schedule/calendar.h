// The local week: which days are work days and which the weekend, from the locale's week data.
//
// Three day numberings meet here: ICU day numbers (1 = Sunday ... 7 = Saturday), day indexes
// (0 = Monday ... 6 = Sunday; what every function below returns) and standard day numbers
// (0 = Sunday ... 6 = Saturday; they select the day keys "sunday" ... "saturday").
//
// The week data is read from ICU once per process, at the first call of any function below, for
// the process's locale: the first of LC_ALL, LC_TIME and LANG that is set (ICU's default locale
// when none is), with its "calendar" keyword. setWeekDataLocale() replaces that locale (tests, the
// command-line tool) and makes the next call read the data again. Reading is serialised, so any
// thread may call these functions; a later change of the environment is not seen. Day keys are
// static strings owned by the library; nullptr stands for nil.
#pragma once

#include <gatewise/export.h>

#include <cstdint>
#include <string>
#include <string_view>

// ICU day number - 1 (0 = Sunday) -> day index; an eighth, zero, word follows.
GW_EXTERN_C const std::int32_t GWReverseDayMapping[8];
// Day index (0 = Monday) -> standard day number; an eighth, zero, word follows.
GW_EXTERN_C const std::int32_t GWStandardDayMapping[8];

// First work day (ICU day number), weekend onset (ICU day number), work-week length, weekend
// length. Zero until first use.
GW_EXTERN_C std::uint8_t gICUInfo[4];

// Fills the four bytes at info from ICU (not through the cache). Logs "*** ICU lookup failed,
// using default values" and stores Monday, Saturday, 5, 2 when no week data can be found.
GW_EXTERN_C void GetICUWeekdayWeekendInfo(std::uint8_t* info);

GW_EXTERN_C std::int32_t GWFirstWeekday(void);
GW_EXTERN_C std::int32_t GWLastWeekday(void);
GW_EXTERN_C std::int32_t GWFirstWeekendDay(void);
GW_EXTERN_C std::int32_t GWLastWeekendDay(void);
// Day index of the first work day (weekend onset) plus offset; offsets are meant to stay in 0..6.
GW_EXTERN_C std::int32_t GWWeekdayWithOffset(std::int32_t offset);
GW_EXTERN_C std::int32_t GWWeekendDayWithOffset(std::int32_t offset);
GW_EXTERN_C std::int32_t GWWorkWeekLength(void);
GW_EXTERN_C std::int32_t GWWeekendLength(void);

GW_EXTERN_C const char* GWFirstWeekdayKey(void);
GW_EXTERN_C const char* GWLastWeekdayKey(void);
GW_EXTERN_C const char* GWFirstWeekendDayKey(void);
GW_EXTERN_C const char* GWLastWeekendDayKey(void);
GW_EXTERN_C const char* GWWeekdayWithOffsetKey(std::int32_t offset);
GW_EXTERN_C const char* GWWeekendDayWithOffsetKey(std::int32_t offset);

namespace gw {

// Uses localeID (an ICU or POSIX locale identifier, keywords allowed: "he_IL@calendar=hebrew")
// for the week data and day names from now on; empty returns to the process's locale. The data
// is read again at the next call.
GW_EXPORT void setWeekDataLocale(std::string_view localeID);
// The ICU locale identifier in use (canonical form, keywords kept).
GW_EXPORT std::string weekDataLocale();

// The day key of a standard day number (0 = "sunday" ... 6 = "saturday"), nullptr outside 0..6.
GW_EXPORT const char* dayKeyForStandardDay(std::int32_t day);

}  // namespace gw
