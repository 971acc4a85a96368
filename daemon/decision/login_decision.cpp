#include "daemon/decision/login_decision.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "daemon/decision/day.h"
#include "platform/time/local_time.h"

namespace gw::daemon {
namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();
constexpr double kHorizonSeconds = 8 * 86400.0;
// Less than this left counts as nothing left: "allowed, 0 seconds" would read as unlimited.
constexpr double kLeastUsable = 1.0;

plist::Date plus(plist::Date d, double seconds) {
  return plist::Date{d.secondsSinceReferenceDate + seconds};
}
double between(plist::Date a, plist::Date b) {
  return b.secondsSinceReferenceDate - a.secondsSinceReferenceDate;
}

// Walks time forward for one user, paying for use as the rules say.
class Walk {
 public:
  Walk(const ComputerLimit& limit, const UsageLookup& usage, const Grant& grant,
       const std::string& todayKey)
      : limit_(limit), usage_(usage), grant_(grant), todayKey_(todayKey) {}

  struct Budget {
    double allowanceLeft = kInfinite;  // may go below zero when the grant paid
    double grantLeft = 0;
    bool zeroAllowance = false;  // an allowance of zero seconds is in effect
    double usable(bool curfewed) const {
      double grant = std::max(0.0, grantLeft);
      return curfewed ? grant : std::max(0.0, allowanceLeft) + grant;
    }
  };

  Budget budgetOn(plist::Date dayStart) {
    std::string key = dayKeyOf(dayStart);
    int index = dayIndexOf(dayStart);
    Budget b;
    DayUsage today = usageOn(key);
    double outside = today.used - today.curfewUsed;
    double allowance = kInfinite;
    for (const AllowanceRule& rule : limit_.allowances) {
      if (!rule.inEffectOn(index)) continue;
      double total = rule.seconds;
      if (rule.seconds == 0) b.zeroAllowance = true;
      if (rule.weekly) {
        for (int day = rule.fromDay; day < index; ++day) {
          DayUsage earlier = usageOn(dayKeyOf(time::addingDays(dayStart, day - index)));
          total -= earlier.used - earlier.curfewUsed;
        }
      }
      allowance = std::min(allowance, total);
    }
    b.allowanceLeft = allowance - outside;
    if (key == todayKey_) {
      if (grant_.unlimited) {
        b.allowanceLeft = b.grantLeft = kInfinite;
        return b;
      }
      b.grantLeft = double(grant_.seconds) - today.curfewUsed - std::max(0.0, -b.allowanceLeft);
    }
    return b;
  }

  bool curfewed(plist::Date t) const { return limit_.curfews && limit_.curfews->isDateCurfewed(t); }

  // The end of the current stretch of curfew (or of freedom) at t, within the day.
  plist::Date stretchEnd(plist::Date t, bool inCurfew, plist::Date dayEnd, plist::Date horizon) {
    plist::Date end = horizon;
    if (limit_.curfews) {
      auto next = inCurfew ? limit_.curfews->nextNonCurfewDateAfterDate(t)
                           : limit_.curfews->nextCurfewDateAfterDate(t);
      if (next) end = *next;
    }
    end = std::min(end, dayEnd);
    if (!(end > t)) end = std::min(plus(t, 1), dayEnd);  // always make progress
    return end;
  }

  // Pays for [t, t + length) used on the day of dayKey.
  void pay(Budget& b, const std::string& key, bool inCurfew, double length) {
    DayUsage& u = simulated_[key];
    u.used += length;
    if (inCurfew) {
      u.curfewUsed += length;
      b.grantLeft -= length;
      return;
    }
    double fromAllowance = std::min(std::max(0.0, b.allowanceLeft), length);
    b.allowanceLeft -= fromAllowance;
    b.grantLeft -= length - fromAllowance;
  }

 private:
  DayUsage usageOn(const std::string& key) {
    DayUsage u = usage_(key);
    auto it = simulated_.find(key);
    if (it != simulated_.end()) {
      u.used += it->second.used;
      u.curfewUsed += it->second.curfewUsed;
    }
    return u;
  }

  const ComputerLimit& limit_;
  const UsageLookup& usage_;
  const Grant& grant_;
  std::string todayKey_;
  std::map<std::string, DayUsage> simulated_;
};

}  // namespace

std::int32_t Decision::seconds(plist::Date now) const {
  std::optional<plist::Date> until = allowed() ? end : nextAllowed;
  if (!until) return 0;
  double left = std::ceil(between(now, *until) - 1e-6);
  return std::int32_t(std::clamp(left, 1.0, double(INT32_MAX)));
}

Decision decide(const ComputerLimit* limit, plist::Date now, const UsageLookup& usage,
                const Grant& todayGrant) {
  Decision decision;
  if (!limit) return decision;
  const std::string todayKey = dayKeyOf(now);
  const plist::Date horizon = plus(now, kHorizonSeconds);

  // Continuous use from now: where does it run out?
  Walk walk(*limit, usage, todayGrant, todayKey);
  Walk::Budget budget = walk.budgetOn(startOfDayOf(now));
  plist::Date t = now;
  bool first = true;
  while (t < horizon) {
    const plist::Date dayEnd = startOfNextDay(t);
    const bool inCurfew = walk.curfewed(t);
    const plist::Date stretch = walk.stretchEnd(t, inCurfew, dayEnd, horizon);
    const double usable = budget.usable(inCurfew);
    const double length = between(t, stretch);
    if (usable < length) {
      if (first && usable < kLeastUsable) break;  // nothing left now: a refusal
      decision.end = plus(t, usable);
      // Running out exactly where a curfew starts is the curfew's doing.
      bool curfewNext = !inCurfew && stretch < dayEnd && walk.curfewed(stretch);
      decision.endCause = inCurfew || (curfewNext && usable + kLeastUsable >= length) ||
                                  budget.allowanceLeft == kInfinite
                              ? EndCause::Curfew
                              : EndCause::Allowance;
      return decision;
    }
    walk.pay(budget, dayKeyOf(t), inCurfew, length);
    t = stretch;
    first = false;
    if (!(t < dayEnd)) budget = walk.budgetOn(t);
  }
  if (t >= horizon) return decision;  // more than a week of time: no end worth telling

  // Refused now: why, and when is there time again (without using any)?
  Walk idle(*limit, usage, todayGrant, todayKey);
  Walk::Budget today = idle.budgetOn(startOfDayOf(now));
  if (idle.curfewed(now)) {
    decision.reason = kGWLoginCurfew;
  } else if (today.zeroAllowance && today.grantLeft < kLeastUsable) {
    decision.reason = kGWLoginNoTimeToday;
  } else {
    decision.reason = kGWLoginAllowanceUsedUp;
  }
  t = now;
  Walk::Budget b = today;
  while (t < horizon) {
    const plist::Date dayEnd = startOfNextDay(t);
    const bool inCurfew = idle.curfewed(t);
    if (t > now && b.usable(inCurfew) >= kLeastUsable) {
      decision.nextAllowed = t;
      break;
    }
    t = idle.stretchEnd(t, inCurfew, dayEnd, horizon);
    if (!(t < dayEnd)) b = idle.budgetOn(t);
  }
  return decision;
}

double curfewSecondsBetween(const GWCurfews* curfews, plist::Date from, plist::Date to) {
  if (!curfews) return 0;
  double inside = 0;
  plist::Date t = from;
  while (t < to) {
    bool curfewed = curfews->isDateCurfewed(t);
    auto next =
        curfewed ? curfews->nextNonCurfewDateAfterDate(t) : curfews->nextCurfewDateAfterDate(t);
    plist::Date end = next && *next > t ? std::min(*next, to) : to;
    if (curfewed) inside += between(t, end);
    t = end;
  }
  return inside;
}

}  // namespace gw::daemon
