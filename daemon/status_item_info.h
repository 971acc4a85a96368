// The status items the daemon shows a user about the computer: termination warnings 5, 4, 3, 2
// and 1 minutes before the computer time ends, then the end alert. statusItemsAt is a function of
// the login decision and the moment, so every answer is computed afresh; encodeStatusItems makes
// the keyed archive of GWStatusItem objects that _GWMIGGetStatusItems returns.
#pragma once

#include <gatewise/plist.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "daemon/decision/login_decision.h"

namespace gw::daemon {

struct StatusItemInfo {
  std::string itemID;
  std::string statusKind;  // one of the kGWStatusKind... names
  std::string itemName;
  plist::Date created;
  plist::Date expires;
  std::string itemKind = "";  // "" for the computer item
};

// The latest warning that is due (one at most), or the end alert once the time has ended.
std::vector<StatusItemInfo> statusItemsAt(const Decision& decision, plist::Date now,
                                          const std::string& itemName);

// The archive (empty when nothing could be archived, logged).
std::vector<std::uint8_t> encodeStatusItems(const std::vector<StatusItemInfo>& items);

}  // namespace gw::daemon
