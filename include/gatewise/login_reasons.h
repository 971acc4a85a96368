// Why tutelad lets a user log in or not: the reason codes of its _GWMIGUserCanLogin answer.
//
// The daemon answers every login question with a reason and a number of seconds; the library passes
// both through (GWUserCanLogin) and adds one reason of its own for a daemon it could not ask. The
// PAM module and the CLI turn each reason into a message for the user.
#pragma once

#include <cstdint>

namespace gw {

enum GWLoginReason : std::int32_t {
  kGWLoginAllowed = 0,  // seconds = time left today, 0 when unlimited
  kGWLoginCurfew = 1,   // a curfew is in force; seconds = until it ends
  kGWLoginAllowanceUsedUp =
      2,  // today's allowance is used up; seconds = until the next day's allowance
  kGWLoginNoTimeToday = 3,  // today's allowance is zero; seconds = until the next day with time
  kGWLoginDaemonNotAsked =
      4,  // the library's own: the daemon could not be asked (the user is let in)
};

}  // namespace gw
