// Reading a user's time-limits preference: the items of its "limits-list", in file order.
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <gatewise/schedule/limit_item.h>
#include <unistd.h>

#include "schedule/limits/stored_file.h"

namespace gw {
namespace {

std::optional<std::string> userNameOrCurrent(std::optional<std::string_view> userName) {
  if (userName) return std::string(*userName);
  return GetUserShortNameForUID(::getuid());
}

template <class Test>
GWLimitItemRef lastItemWhere(const std::vector<GWLimitItemRef>& items, Test test) {
  for (auto it = items.rbegin(); it != items.rend(); ++it) {
    if (*it && test(**it)) return *it;
  }
  return nullptr;
}

}  // namespace

std::vector<GWLimitItemRef> GWLimitItem::allLimitsForUser(
    std::optional<std::string_view> userName) {
  std::vector<GWLimitItemRef> items;
  items.reserve(8);
  std::optional<std::string> name = userNameOrCurrent(userName);
  if (!name) return items;
  std::optional<std::string> path = GWManagedPreferencesFileForUser(*name, kGWTimeLimitsDomain);
  if (!path) return items;
  std::optional<plist::Value> stored = limits::readStoredPropertyList(*path);
  const plist::Dictionary* preference = stored ? stored->ifDictionary() : nullptr;
  const plist::Array* list = preference ? preference->get(kGWLimitsListKey).ifArray() : nullptr;
  if (!list) return items;
  for (const plist::Value& element : *list) {
    // One malformed entry costs only itself: the others are still enforced.
    try {
      if (GWLimitItemRef item = limitItemWithDictionary(element)) items.push_back(std::move(item));
    } catch (const std::exception& e) {
      GW_LOG_CAUGHT(e);
    }
  }
  return items;
}

GWLimitItemRef GWLimitItem::limitWithID(std::string_view id,
                                        std::optional<std::string_view> userName) {
  return lastItemWhere(allLimitsForUser(userName),
                       [id](const GWLimitItem& item) { return item.uniqueID() == id; });
}

GWLimitItemRef GWLimitItem::computerLimitForUser(std::optional<std::string_view> userName) {
  return computerLimitFromArray(allLimitsForUser(userName));
}

GWLimitItemRef GWLimitItem::computerLimitFromArray(const std::vector<GWLimitItemRef>& items) {
  return lastItemWhere(items, [](const GWLimitItem& item) { return item.isComputer(); });
}

GWLimitItemRef GWLimitItem::gamesGroupLimitForUser(std::optional<std::string_view> userName) {
  return gamesGroupLimitFromArray(allLimitsForUser(userName));
}

GWLimitItemRef GWLimitItem::gamesGroupLimitFromArray(const std::vector<GWLimitItemRef>& items) {
  return lastItemWhere(items, [](const GWLimitItem& item) { return item.isGamesGroup(); });
}

}  // namespace gw
