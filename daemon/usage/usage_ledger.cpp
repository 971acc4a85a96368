#include "daemon/usage/usage_ledger.h"

#include <algorithm>
#include <vector>

#include "daemon/decision/day.h"

namespace gw::daemon {

void UsageLedger::count(uid_t uid, plist::Date from, plist::Date to, const GWCurfews* curfews) {
  while (from < to) {
    plist::Date dayEnd = std::min(startOfNextDay(from), to);
    if (!(dayEnd > from)) dayEnd = to;
    DayUsage& u = unflushed_[{uid, dayKeyOf(from)}];
    u.used += dayEnd.secondsSinceReferenceDate - from.secondsSinceReferenceDate;
    u.curfewUsed += curfewSecondsBetween(curfews, from, dayEnd);
    from = dayEnd;
  }
}

DayUsage UsageLedger::usageOn(uid_t uid, const std::string& day) {
  Key key{uid, day};
  auto it = stored_.find(key);
  if (it == stored_.end()) it = stored_.emplace(key, store_->usageOn(uid, day)).first;
  DayUsage total = it->second;
  auto pending = unflushed_.find(key);
  if (pending != unflushed_.end()) {
    total.used += pending->second.used;
    total.curfewUsed += pending->second.curfewUsed;
  }
  return total;
}

bool UsageLedger::flush() {
  if (unflushed_.empty()) return true;
  std::vector<UsageDelta> deltas;
  for (const auto& [key, usage] : unflushed_) deltas.push_back({key.first, key.second, usage});
  if (!store_->add(deltas)) return false;
  for (const auto& [key, usage] : unflushed_) {
    auto it = stored_.find(key);
    if (it == stored_.end()) continue;  // read from the database when next asked
    it->second.used += usage.used;
    it->second.curfewUsed += usage.curfewUsed;
  }
  unflushed_.clear();
  return true;
}

bool UsageLedger::reset(uid_t uid, const std::string& day) {
  Key key{uid, day};
  unflushed_.erase(key);
  stored_.erase(key);
  return store_->reset(uid, day);
}

}  // namespace gw::daemon
