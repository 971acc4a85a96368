// A managed user's limits on the whole computer, as the daemon enforces them.
//
// The computer limit is the last item of type "com.morvane.gatewise.timelimits.computer" in the
// "limits-list" of the user's time-limits preference
// ("<root>/Library/Managed Preferences/<user>/com.morvane.gatewise.timelimits.plist"). Only an
// enabled item limits anything. parseComputerLimit checks the stored form strictly, because the
// daemon reads it as root and a login decision must never crash: wrong types, times out of range,
// unsorted or overlapping curfews, day indexes outside 0..6 or allowances beyond a week are refused
// with a one-line reason, and the daemon then treats the user as having no limits (the reason is
// logged once per version of the file by ComputerLimitCache).
#pragma once

#include <gatewise/plist.h>
#include <gatewise/schedule/curfews.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "daemon/limits/guarded_file.h"

namespace gw::daemon {

inline constexpr const char* kTimeLimitsDomain = "com.morvane.gatewise.timelimits";
inline constexpr const char* kComputerItemType = "com.morvane.gatewise.timelimits.computer";
// Larger preference files are refused unread.
inline constexpr std::size_t kMaxLimitsFileSize = 4 << 20;

struct AllowanceRule {
  std::int32_t seconds = 0;
  std::int32_t fromDay = 0;  // day index, 0 = Monday
  std::int32_t toDay = 0;
  bool weekly = false;  // the seconds hold for fromDay..toDay together, not for each day
  bool inEffectOn(int dayIndex) const { return fromDay <= dayIndex && dayIndex <= toDay; }
};

struct ComputerLimit {
  GWCurfewsRef curfews;                   // nullptr: no curfews
  std::vector<AllowanceRule> allowances;  // only the active ones; empty: no allowance
  std::string name = "Computer";
};

struct ParsedLimits {
  std::optional<ComputerLimit> limit;  // nullopt: the user has no computer limit in force
  std::string problem;                 // why the stored form was refused ("" when it was fine)
};

// The computer limit of a time-limits preference (the file's top-level value).
ParsedLimits parseComputerLimit(const plist::Value& preference);

// Reads and parses the preference of a user, again only when the file changed.
class ComputerLimitCache {
 public:
  // nullptr when the user has no computer limit in force.
  const ComputerLimit* limitFor(const std::string& userName);
  void forget(const std::string& userName) { entries_.erase(userName); }

 private:
  struct Entry {
    FileStamp stamp;
    std::optional<ComputerLimit> limit;
  };
  std::map<std::string, Entry> entries_;
};

}  // namespace gw::daemon
