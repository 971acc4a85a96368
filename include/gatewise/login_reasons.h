// The reason codes of tutelad's answer to _GWMIGUserCanLogin.
//
// The daemon answers every login question with a number of seconds and one of these reasons; the
// library (GWUserCanLogin) passes them through unchanged, except kGWLoginDaemonNotAsked, which it
// sets itself when the daemon could not be asked and then lets the user in. The PAM module and the
// CLI turn each refusal into a sentence for the user ("Computer time is over for today. You may log
// in again at 07:00."). Plain constants: no state, any thread.
#pragma once

#include <cstdint>

namespace gw {

enum GWLoginReason : std::int32_t {
  // Allowed. seconds = computer time left before use would be cut off (a curfew starting or the
  // allowance running out, whichever comes first), 0 when nothing limits it.
  kGWLoginAllowed = 0,
  // Refused: a curfew is in force. seconds = until the user may log in again (the curfew's end,
  // or later when the allowance is used up by then).
  kGWLoginCurfew = 1,
  // Refused: today's allowance is used up. seconds = until the next moment with time (usually the
  // next day's allowance).
  kGWLoginAllowanceUsedUp = 2,
  // Refused: today's allowance is zero. seconds = until the next day with time.
  kGWLoginNoTimeToday = 3,
  // The library's own: the daemon could not be asked, and the user is let in.
  kGWLoginDaemonNotAsked = 4,
};

}  // namespace gw
