// The week calendar: the cached week data and the functions that name work days and weekend days.
#include <gatewise/schedule/calendar.h>
#include <stdlib.h>
#include <unicode/uloc.h>

#include <atomic>
#include <mutex>

#include "schedule/calendar/week_data.h"

const std::int32_t GWReverseDayMapping[8] = {6, 0, 1, 2, 3, 4, 5, 0};
const std::int32_t GWStandardDayMapping[8] = {1, 2, 3, 4, 5, 6, 0, 0};
std::uint8_t gICUInfo[4] = {0, 0, 0, 0};

namespace gw {
namespace {

constexpr const char* kDayKeys[7] = {"sunday",   "monday", "tuesday", "wednesday",
                                     "thursday", "friday", "saturday"};

// The fill is guarded so that a second thread never reads half-written data; the flag is only
// set once the four bytes are in place.
std::atomic<bool> sFetchedData{false};
std::mutex& fetchMutex() {
  static std::mutex mutex;
  return mutex;
}
std::string& localeOverride() {
  static std::string id;
  return id;
}

std::string processLocaleID() {
  for (const char* variable : {"LC_ALL", "LC_TIME", "LANG"}) {
    const char* value = ::getenv(variable);
    if (value && *value) return calendar::icuLocaleID(value);
  }
  return uloc_getDefault();
}

std::string currentLocaleIDLocked() {
  return localeOverride().empty() ? processLocaleID() : localeOverride();
}

const std::uint8_t* weekInfo() {
  if (!sFetchedData.load(std::memory_order_acquire)) {
    std::lock_guard<std::mutex> lock(fetchMutex());
    if (!sFetchedData.load(std::memory_order_relaxed)) {
      GetICUWeekdayWeekendInfo(gICUInfo);
      sFetchedData.store(true, std::memory_order_release);
    }
  }
  return gICUInfo;
}

// ICU day number (first day plus an offset) -> day index. The wrap past Saturday happens once,
// as offsets stay within the week; anything further out is brought back into the week.
std::int32_t dayIndexForICUDay(std::int32_t day) {
  std::int32_t index = day - 1;
  if (std::uint8_t(index) >= 7) index = day - 8;
  if (index < 0 || index > 7) index = ((day - 1) % 7 + 7) % 7;
  return GWReverseDayMapping[index];
}

const char* keyForDayIndex(std::int32_t index) {
  if (index < 0 || index > 7) return nullptr;
  return dayKeyForStandardDay(GWStandardDayMapping[index]);
}

}  // namespace

void setWeekDataLocale(std::string_view localeID) {
  std::lock_guard<std::mutex> lock(fetchMutex());
  localeOverride() =
      localeID.empty() ? std::string() : calendar::icuLocaleID(std::string(localeID));
  sFetchedData.store(false, std::memory_order_release);
}

std::string weekDataLocale() {
  std::lock_guard<std::mutex> lock(fetchMutex());
  return currentLocaleIDLocked();
}

const char* dayKeyForStandardDay(std::int32_t day) {
  return day >= 0 && day <= 6 ? kDayKeys[day] : nullptr;
}

}  // namespace gw

// Called with the fetch lock held when it fills the cache; the locale is read under that lock.
void GetICUWeekdayWeekendInfo(std::uint8_t* info) {
  if (!info) return;
  std::string localeID =
      gw::localeOverride().empty() ? gw::processLocaleID() : gw::localeOverride();
  gw::calendar::readWeekData(localeID, "supplementalData", info);
}

std::int32_t GWFirstWeekday(void) { return gw::dayIndexForICUDay(gw::weekInfo()[0]); }
std::int32_t GWLastWeekday(void) { return GWWeekdayWithOffset(GWWorkWeekLength() - 1); }
std::int32_t GWFirstWeekendDay(void) { return gw::dayIndexForICUDay(gw::weekInfo()[1]); }
std::int32_t GWLastWeekendDay(void) { return GWWeekendDayWithOffset(GWWeekendLength() - 1); }
std::int32_t GWWeekdayWithOffset(std::int32_t offset) {
  return gw::dayIndexForICUDay(gw::weekInfo()[0] + offset);
}
std::int32_t GWWeekendDayWithOffset(std::int32_t offset) {
  return gw::dayIndexForICUDay(gw::weekInfo()[1] + offset);
}
std::int32_t GWWorkWeekLength(void) { return gw::weekInfo()[2]; }
std::int32_t GWWeekendLength(void) { return gw::weekInfo()[3]; }

const char* GWFirstWeekdayKey(void) { return gw::keyForDayIndex(GWFirstWeekday()); }
const char* GWLastWeekdayKey(void) { return gw::keyForDayIndex(GWLastWeekday()); }
const char* GWFirstWeekendDayKey(void) { return gw::keyForDayIndex(GWFirstWeekendDay()); }
const char* GWLastWeekendDayKey(void) { return gw::keyForDayIndex(GWLastWeekendDay()); }
const char* GWWeekdayWithOffsetKey(std::int32_t offset) {
  return gw::keyForDayIndex(GWWeekdayWithOffset(offset));
}
const char* GWWeekendDayWithOffsetKey(std::int32_t offset) {
  return gw::keyForDayIndex(GWWeekendDayWithOffset(offset));
}
