// The three daily-override operations over the user's overrides file.
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <gatewise/schedule/overrides.h>

#include "schedule/overrides/overrides_file.h"

namespace gw {
namespace {

// Today's entries of limitKey in overrides, or nullptr when the limit, today's key or an array
// under it is missing.
plist::Array* todaysEntries(const plist::Dictionary& overrides, std::string_view limitKey,
                            const std::string& today) {
  const plist::Dictionary* days = overrides.get(limitKey).ifDictionary();
  return days ? days->get(today).ifArray() : nullptr;
}

}  // namespace

void GWExtendSecondsForToday(std::string_view userName, std::optional<std::string_view> limitKey,
                             std::int32_t seconds) {
  GW_LOG(2, "Extending by %d seconds", seconds);
  if (!limitKey) return;
  try {
    std::optional<std::string> folder = GWFolderForUserName(userName);
    std::optional<std::string> path = overrides::overridesFilePath(userName);
    if (!folder || !path) {
      GW_LOG(0, "*** Failed to write overrides plist");
      return;
    }
    overrides::ensureUserFolder(*folder);
    std::string today = overrides::todayKey();
    plist::DictionaryRef all = overrides::readOverrides(*path).value_or(plist::Dictionary::make());

    plist::Value& slot = all->mutableEntries()[std::string(*limitKey)];
    if (!slot.isDictionary()) slot = plist::Dictionary::make();
    plist::DictionaryRef days = slot.dictionary();
    const plist::Value& held = days->get(today);
    plist::ArrayRef entries = held.isArray() ? held.array() : plist::Array::make();
    // A grant holds for its day only: earlier days of this limit go.
    days->clear();
    entries->append(plist::Value::newDictionary({{"duration", seconds}, {"expired", false}}));
    days->set(today, entries);
    overrides::writeOverrides(*path, all);
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
}

std::int32_t GWExtendedSecondsForToday(std::string_view userName,
                                       std::optional<std::string_view> limitKey,
                                       bool includeExpired) {
  if (!limitKey) return 0;
  try {
    std::optional<std::string> path = overrides::overridesFilePath(userName);
    if (!path) return 0;
    std::optional<plist::DictionaryRef> all = overrides::readOverrides(*path);
    if (!all) return 0;
    const plist::Array* entries = todaysEntries(**all, *limitKey, overrides::todayKey());
    if (!entries) return 0;
    std::int32_t sum = 0;
    for (const plist::Value& entry : *entries) {
      const plist::Dictionary* fields = entry.ifDictionary();
      if (!fields) continue;
      if (fields->get("expired").boolValue() && !includeExpired) continue;
      std::int32_t duration = std::int32_t(fields->get("duration").intValue());
      if (duration == -1) return -1;
      // Wraps as the 32-bit sum always has; computed unsigned so the wrap is defined.
      sum = std::int32_t(std::uint32_t(sum) + std::uint32_t(duration));
    }
    return sum;
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
    return 0;
  }
}

void GWExpireAllOverridesForToday(std::string_view userName,
                                  std::optional<std::string_view> limitKey) {
  if (!limitKey) return;
  try {
    std::optional<std::string> path = overrides::overridesFilePath(userName);
    if (!path) return;
    std::optional<plist::DictionaryRef> all = overrides::readOverrides(*path);
    if (!all) return;
    plist::Array* entries = todaysEntries(**all, *limitKey, overrides::todayKey());
    if (!entries) return;
    for (const plist::Value& entry : *entries) {
      if (plist::Dictionary* fields = entry.ifDictionary()) fields->set("expired", true);
    }
    overrides::writeOverrides(*path, *all);
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
}

}  // namespace gw
