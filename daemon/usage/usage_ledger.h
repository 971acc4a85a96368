// Counted usage in memory in front of the database: what is stored, plus what was counted since
// the last flush.
//
// count() books a stretch of use, split at local midnights (each day gets its part) and into the
// part inside a curfew. usageOn() answers stored plus unflushed usage; flush() writes the
// unflushed part in one transaction (kept for the next flush when the write fails). The database
// is read once per user and day. One thread.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "daemon/decision/login_decision.h"
#include "daemon/usage/usage_store.h"

namespace gw::daemon {

class UsageLedger {
 public:
  explicit UsageLedger(std::unique_ptr<UsageStore> store) : store_(std::move(store)) {}

  void count(uid_t uid, plist::Date from, plist::Date to, const GWCurfews* curfews);
  DayUsage usageOn(uid_t uid, const std::string& day);
  bool hasUnflushed() const { return !unflushed_.empty(); }
  bool flush();
  // Forgets the user's usage of day, stored and unflushed.
  bool reset(uid_t uid, const std::string& day);
  UsageStore& store() { return *store_; }

 private:
  using Key = std::pair<uid_t, std::string>;
  std::unique_ptr<UsageStore> store_;
  std::map<Key, DayUsage> stored_;
  std::map<Key, DayUsage> unflushed_;
};

}  // namespace gw::daemon
