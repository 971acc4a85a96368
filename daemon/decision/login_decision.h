// The login decision: may a user use the computer now, for how long, and if not, until when.
//
// A pure function of the user's computer limit, the moment, the usage counted so far and today's
// administrator grant, so it is tested with any clock. The rules:
// - no limit in force: allowed, without end;
// - use outside a curfew is paid from the day's allowance (the smallest of the allowances in
//   effect that day; a weekly one less what the span's earlier days of the week used), then from
//   today's grant; use inside a curfew only from today's grant; a grant of -1 lifts every limit
//   until midnight;
// - the end of the computer time is where continuous use from now would run out of both, walking
//   forward over curfew boundaries and midnights (each new day brings its own allowance) for at
//   most a week; the cause is the curfew when the end falls on a curfew's start or inside one,
//   else the allowance;
// - a refusal (less than a second left) says why: a curfew, the allowance used up, or no
//   allowance at all today; and the next moment the user would have time again.
#pragma once

#include <gatewise/login_reasons.h>
#include <gatewise/plist.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "daemon/limits/computer_limit.h"
#include "daemon/limits/overrides_file.h"

namespace gw::daemon {

struct DayUsage {
  double used = 0;        // every counted second of the day
  double curfewUsed = 0;  // of which inside a curfew (paid from the grant)
};
using UsageLookup = std::function<DayUsage(const std::string& dayKey)>;

enum class EndCause { None, Curfew, Allowance };

struct Decision {
  GWLoginReason reason = kGWLoginAllowed;
  std::optional<plist::Date> end;  // allowed: when continuous use would be cut off
  EndCause endCause = EndCause::None;
  std::optional<plist::Date> nextAllowed;  // refused: when the user has time again

  bool allowed() const { return reason == kGWLoginAllowed; }
  // The seconds of the _GWMIGUserCanLogin reply: time left (0 when unlimited) or time until the
  // user may log in again (0 when not within a week).
  std::int32_t seconds(plist::Date now) const;
};

Decision decide(const ComputerLimit* limit, plist::Date now, const UsageLookup& usage,
                const Grant& todayGrant);

// The seconds of [from, to) that lie inside a curfew.
double curfewSecondsBetween(const GWCurfews* curfews, plist::Date from, plist::Date to);

}  // namespace gw::daemon
