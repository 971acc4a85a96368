// What the PAM module tells a user about the login gate's answer.
//
// The texts are English sentences built from the library's duration and clock texts
// (GWTimeDurationString, GWUtilities::timeStringWithHourIndex, day names): one per login reason
// of tutelad, a generic refusal for reasons this module does not know, and a line with the time
// left for an allowed login that is limited. Moments are shown on the local wall clock (TZ), always
// rounded up to the next whole minute so that a user who comes back at the time shown is let in.
// Pure functions of their arguments and TZ; callable from any thread.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace gw::pam {

// "You have 45 minutes left today."; nullopt when no limit applies (secondsLeft not above 0).
std::optional<std::string> timeLeftMessage(double secondsLeft);

// Why the login is refused and, when `until` is known, when the user may come back:
// "It is past your curfew. You may log in again tomorrow at 7:00."
std::string refusalMessage(std::int32_t reason, std::optional<std::time_t> until, std::time_t now);

// The refusal of a strict module when the daemon could not be asked.
std::string daemonUnavailableMessage();

// When `until` falls, seen from `now`: "at 7:00" (same local day), "tomorrow at 7:00", "on Monday
// at 7:00" (within the week) or "on 2026-12-01 at 7:00".
std::string momentText(std::time_t until, std::time_t now);

}  // namespace gw::pam
