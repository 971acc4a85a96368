// Host-wide preferences: one property-list file per domain, for any user on this host.
//
// A domain's values live in "<root>/Library/Preferences/<domain>.plist", a dictionary at the top.
// A missing or unreadable file, a top level that is not a dictionary, or an unsafe domain name
// reads as "no value": the log reads its own threshold through here, so nothing is logged.
#pragma once

#include <gatewise/plist.h>

#include <optional>
#include <string_view>

namespace gw::prefs {

std::optional<plist::Value> copyHostValue(std::string_view domain, std::string_view key);

}  // namespace gw::prefs
