// The reason codes of a launch answer.
//
// tutelad answers _GWMIGAppCanLaunch (and decides enforced execs) with a result and one of these
// reasons; the library (GWIsAppAllowedToLaunchExt) passes them through unchanged, except the two
// it sets itself: kGWLaunchDaemonNotAsked when the daemon could not be asked (the launch is then
// allowed) and kGWLaunchAlwaysAllowedTool for the system's own tools, which never reach the
// daemon. The daemon also answers kGWLaunchAlwaysAllowedTool for those tools, so an enforced exec
// of them is never refused. Plain constants: no state, any thread.
#pragma once

#include <cstdint>

namespace gw {

enum GWLaunchReason : std::int32_t {
  // Allowed: the user has no launch restrictions (white list off, root, or not a managed user).
  kGWLaunchUnrestricted = 0,
  // Allowed: the program is on the user's white list (its path or its bundle identifier).
  kGWLaunchWhiteListed = 1,
  // Allowed: the program is a nested program ("subApps") of a white-listed record.
  kGWLaunchNestedWhiteListed = 2,
  // Refused: the user has launch restrictions and the program is not on the white list.
  kGWLaunchNotWhiteListed = 3,
  // Refused: the program matches a white-list record whose designated requirement ("appID") it
  // no longer satisfies (changed, replaced or re-signed by someone else).
  kGWLaunchSignatureMismatch = 4,
  // Refused: the older settings form lists the program in its "DenyList".
  kGWLaunchDenyListed = 5,
  // Allowed: the user's settings could not be read or parsed (the gate fails open).
  kGWLaunchSettingsUnreadable = 6,
  // The library's own: the daemon could not be asked, and the launch is allowed.
  kGWLaunchDaemonNotAsked = 8,
  // A system tool that is always allowed (see GWAlwaysAllowedLaunchTools in gatewise/launch.h).
  kGWLaunchAlwaysAllowedTool = 10,
};

}  // namespace gw
