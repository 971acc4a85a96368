// Day names by day index. Short and singular names come from ICU's date-format symbols of the
// week-data locale (Sunday-first, like the standard day numbers); English is the fallback. Plural
// names have no localisation.
#include <gatewise/exception.h>
#include <gatewise/schedule/calendar.h>
#include <gatewise/schedule/text.h>
#include <unicode/dtfmtsym.h>
#include <unicode/locid.h>

#include <array>
#include <mutex>
#include <optional>

namespace gw::GWUtilities {
namespace {

struct EnglishDay {
  const char* shortName;
  const char* singular;
  const char* plural;
};

// By day index, 0 = Monday.
constexpr EnglishDay kEnglishDays[7] = {
    {"Mon", "Monday", "Mondays"},       {"Tue", "Tuesday", "Tuesdays"},
    {"Wed", "Wednesday", "Wednesdays"}, {"Thu", "Thursday", "Thursdays"},
    {"Fri", "Friday", "Fridays"},       {"Sat", "Saturday", "Saturdays"},
    {"Sun", "Sunday", "Sundays"}};

// Sunday-first names of one locale, as ICU gives them.
struct LocalNames {
  std::string localeID;
  std::array<std::string, 7> shortNames;
  std::array<std::string, 7> fullNames;
};

std::optional<LocalNames> readLocalNames(const std::string& localeID) {
  UErrorCode status = U_ZERO_ERROR;
  icu::DateFormatSymbols symbols(icu::Locale(localeID.c_str()), status);
  if (U_FAILURE(status)) return std::nullopt;
  std::int32_t shortCount = 0, fullCount = 0;
  const icu::UnicodeString* shortNames = symbols.getShortWeekdays(shortCount);
  const icu::UnicodeString* fullNames = symbols.getWeekdays(fullCount);
  // ICU's arrays are indexed by UCAL_SUNDAY (1) ... UCAL_SATURDAY (7).
  if (!shortNames || !fullNames || shortCount < 8 || fullCount < 8) return std::nullopt;
  LocalNames names;
  names.localeID = localeID;
  for (int day = 0; day < 7; ++day) {
    shortNames[day + 1].toUTF8String(names.shortNames[std::size_t(day)]);
    fullNames[day + 1].toUTF8String(names.fullNames[std::size_t(day)]);
  }
  return names;
}

// The localised name of a day index, nullopt when ICU has none for the locale.
std::optional<std::string> localName(std::int32_t index, bool shortForm) {
  static std::mutex mutex;
  static std::optional<LocalNames> cached;
  std::string localeID = weekDataLocale();
  std::lock_guard<std::mutex> lock(mutex);
  if (!cached || cached->localeID != localeID) {
    cached = readLocalNames(localeID);
    if (!cached) return std::nullopt;
  }
  std::size_t standardDay = std::size_t(GWStandardDayMapping[index]);
  return shortForm ? cached->shortNames[standardDay] : cached->fullNames[standardDay];
}

std::string dayName(std::int32_t index, bool shortForm, const char* operation) {
  if (index > 6)
    throw GWException("GWUtilities", std::string(operation) + " -- index out of bounds.");
  if (index < 0) return "";
  if (std::optional<std::string> name = localName(index, shortForm)) return *name;
  return shortForm ? kEnglishDays[index].shortName : kEnglishDays[index].singular;
}

}  // namespace

std::string shortDayStringForIndex(std::int32_t index) {
  return dayName(index, true, "+[GWUtilities shortDayStringForIndex:]");
}

std::string singularDayStringForIndex(std::int32_t index) {
  return dayName(index, false, "+[GWUtilities singularDayStringForIndex:]");
}

std::string pluralDayStringForIndex(std::int32_t index) {
  return index >= 0 && index <= 6 ? kEnglishDays[index].plural : "";
}

}  // namespace gw::GWUtilities
