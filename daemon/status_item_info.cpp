#include "daemon/status_item_info.h"

#include <gatewise/archive.h>
#include <gatewise/status.h>

#include <cmath>

namespace gw::daemon {
namespace {

constexpr const char* kTerminationWarning = "GatewiseStatusKindTerminationWarning";
constexpr const char* kAllowanceExceeded = "GatewiseStatusKindAllowanceExceeded";
constexpr const char* kCurfewUnallowed = "GatewiseStatusKindCurfewUnallowed";
constexpr int kWarningMinutes = 5;

}  // namespace

std::vector<StatusItemInfo> statusItemsAt(const Decision& decision, plist::Date now,
                                          const std::string& itemName) {
  if (!decision.allowed()) {
    const char* kind = decision.reason == kGWLoginCurfew ? kCurfewUnallowed : kAllowanceExceeded;
    return {{"computer-end", kind, itemName, now, now}};
  }
  if (!decision.end) return {};
  double left = decision.end->secondsSinceReferenceDate - now.secondsSinceReferenceDate;
  if (left > kWarningMinutes * 60) return {};
  // The warning of the last whole minute passed: at 3:30 left, the 4-minute one.
  int minutes = std::max(1, int(std::ceil(left / 60 - 1e-9)));
  plist::Date created{decision.end->secondsSinceReferenceDate - minutes * 60};
  return {{"computer-warning-" + std::to_string(minutes), kTerminationWarning, itemName, created,
           *decision.end}};
}

std::vector<std::uint8_t> encodeStatusItems(const std::vector<StatusItemInfo>& items) {
  auto array = plist::Array::make();
  for (const StatusItemInfo& info : items) {
    std::string kind = info.itemKind.empty() ? std::string(kGWItemKindComputer) : info.itemKind;
    GWStatusItemRef item = GWStatusItem::initWithName(info.itemName, kind, info.expires);
    item->setItemID(info.itemID);
    item->setStatusKind(info.statusKind);
    item->setItemCreationDate(info.created);
    array->append(plist::Value(item));
  }
  return archive::archivedDataWithRootObject(plist::Value(array));
}

}  // namespace gw::daemon
