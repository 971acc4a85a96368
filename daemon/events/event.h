// One thing the daemon saw happen to a managed user, as it is recorded for the administrator: an
// entity name (what kind of event), the user, the moment, and a few named fields whose values are
// property-list scalars (strings, integers, reals, booleans, dates).
//
// Subsystems hand events to Manager::recordEvent; the event store keeps them in the daemon's
// database and answers fetch requests over them.
#pragma once

#include <gatewise/plist.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <string_view>

namespace gw::daemon {

// The entities, and the fields each one carries.
inline constexpr std::string_view kEventLogin = "Login";                    // session
inline constexpr std::string_view kEventLogout = "Logout";                  // session
inline constexpr std::string_view kEventCountedSession = "CountedSession";  // seconds
inline constexpr std::string_view kEventRefusedLogin = "RefusedLogin";      // reason, seconds
inline constexpr std::string_view kEventTimeEnded = "TimeEnded";            // reason, action
inline constexpr std::string_view kEventOverride = "Override";              // limit, seconds, by
inline constexpr std::string_view kEventBlockedLaunch = "BlockedLaunch";  // path, bundleID, reason
inline constexpr std::string_view kEventVisitedPage = "VisitedPage";      // url, title
inline constexpr std::string_view kEventBlockedPage = "BlockedPage";      // url, title, reason
inline constexpr std::string_view kEventWebOverride = "WebOverride";      // url

struct Event {
  std::string entity;
  uid_t uid = 0;
  double time = 0;  // seconds since 1970; 0 means now, by the daemon's clock
  std::map<std::string, plist::Value> fields;
};

}  // namespace gw::daemon
