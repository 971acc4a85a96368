// Week data from ICU. The locale's calendar table ("calendar" -> type -> "weekend") is where the
// weekend used to live; current ICU keeps it only in the supplemental "weekData" table, by region,
// as six integers: first day, minimal days, onset day, onset time, cease day, cease time. Both are
// read with the plain resource API so that any ICU version gives a real locale its real week.
#include "schedule/calendar/week_data.h"

#include <gatewise/log.h>
#include <unicode/uloc.h>
#include <unicode/ures.h>

#include <memory>
#include <optional>

namespace gw::calendar {
namespace {

struct BundleCloser {
  void operator()(UResourceBundle* bundle) const { ures_close(bundle); }
};
using Bundle = std::unique_ptr<UResourceBundle, BundleCloser>;

struct Weekend {
  std::int32_t onsetDay;
  std::int32_t ceaseDay;
};

Bundle child(const Bundle& parent, const char* key, UErrorCode& status) {
  return Bundle(ures_getByKey(parent.get(), key, nullptr, &status));
}

std::string keywordValue(const std::string& localeID, const char* keyword) {
  char value[ULOC_KEYWORDS_CAPACITY] = {};
  UErrorCode status = U_ZERO_ERROR;
  std::int32_t length =
      uloc_getKeywordValue(localeID.c_str(), keyword, value, sizeof value, &status);
  if (U_FAILURE(status) || length <= 0 || length >= std::int32_t(sizeof value)) return {};
  return std::string(value, std::size_t(length));
}

// The four-integer "weekend" vector of the locale's calendar table, as older ICU data has it.
std::optional<Weekend> weekendFromCalendarTable(const std::string& localeID) {
  std::string type = keywordValue(localeID, "calendar");
  if (type.empty()) type = "gregorian";
  UErrorCode status = U_ZERO_ERROR;
  Bundle root(ures_open(nullptr, localeID.c_str(), &status));
  Bundle calendar = child(root, "calendar", status);
  Bundle typeTable = child(calendar, type.c_str(), status);
  Bundle weekend = child(typeTable, "weekend", status);
  if (typeTable && U_FAILURE(status) && type != "gregorian") {
    status = U_ZERO_ERROR;
    weekend.reset();
    typeTable = child(calendar, "gregorian", status);
    weekend = child(typeTable, "weekend", status);
  }
  std::int32_t length = 0;
  const std::int32_t* values = ures_getIntVector(weekend.get(), &length, &status);
  if (U_FAILURE(status) || !values || length != 4) return std::nullopt;
  return Weekend{values[0], values[2]};
}

std::string regionOf(const std::string& localeID) {
  char region[ULOC_COUNTRY_CAPACITY] = {};
  UErrorCode status = U_ZERO_ERROR;
  uloc_getCountry(localeID.c_str(), region, sizeof region, &status);
  if (U_SUCCESS(status) && region[0]) return region;
  char likely[ULOC_FULLNAME_CAPACITY] = {};
  status = U_ZERO_ERROR;
  uloc_addLikelySubtags(localeID.c_str(), likely, sizeof likely, &status);
  if (U_FAILURE(status)) return {};
  status = U_ZERO_ERROR;
  uloc_getCountry(likely, region, sizeof region, &status);
  return U_SUCCESS(status) ? std::string(region) : std::string();
}

std::optional<Weekend> weekendFromSupplementalData(const std::string& localeID,
                                                   const char* supplementalName) {
  UErrorCode status = U_ZERO_ERROR;
  Bundle supplemental(ures_openDirect(nullptr, supplementalName, &status));
  Bundle weekData = child(supplemental, "weekData", status);
  if (U_FAILURE(status)) return std::nullopt;
  std::string region = regionOf(localeID);
  Bundle entry;
  if (!region.empty()) entry = child(weekData, region.c_str(), status);
  if (!entry || U_FAILURE(status)) {
    // Regions without an entry of their own follow the world's week, as ICU's calendars do.
    status = U_ZERO_ERROR;
    entry = child(weekData, "001", status);
  }
  std::int32_t length = 0;
  const std::int32_t* values = ures_getIntVector(entry.get(), &length, &status);
  if (U_FAILURE(status) || !values || length < 6) return std::nullopt;
  return Weekend{values[2], values[4]};
}

}  // namespace

std::string icuLocaleID(const std::string& name) {
  std::string_view base = std::string_view(name).substr(0, name.find_first_of(".@"));
  if (base == "C" || base == "POSIX") return "en_US_POSIX";
  char canonical[ULOC_FULLNAME_CAPACITY] = {};
  UErrorCode status = U_ZERO_ERROR;
  std::int32_t length = uloc_canonicalize(name.c_str(), canonical, sizeof canonical, &status);
  if (U_FAILURE(status) || length <= 0 || length >= std::int32_t(sizeof canonical)) return name;
  return std::string(canonical, std::size_t(length));
}

void readWeekData(const std::string& localeID, const char* supplementalName, std::uint8_t info[4]) {
  std::optional<Weekend> weekend = weekendFromCalendarTable(localeID);
  if (!weekend) weekend = weekendFromSupplementalData(localeID, supplementalName);
  std::uint8_t firstWorkday = 2;  // Monday
  std::uint8_t onset = 7;         // Saturday
  if (weekend && weekend->onsetDay >= 1 && weekend->onsetDay <= 7 && weekend->ceaseDay >= 1 &&
      weekend->ceaseDay <= 7) {
    // Weekends are whole days: the onset and cease times are not used.
    firstWorkday = std::uint8_t(weekend->ceaseDay == 7 ? 1 : weekend->ceaseDay + 1);
    onset = std::uint8_t(weekend->onsetDay);
  } else {
    GW_LOG(0, "*** ICU lookup failed, using default values");
  }
  std::uint8_t workWeek = std::uint8_t(onset - firstWorkday);
  if (!(onset > firstWorkday)) workWeek = std::uint8_t(workWeek + 7);
  info[0] = firstWorkday;
  info[1] = onset;
  info[2] = workWeek;
  info[3] = std::uint8_t(7 - workWeek);
}

}  // namespace gw::calendar
