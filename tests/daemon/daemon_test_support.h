// Shared helpers of the daemon's tests: time-limit preferences built as property lists, and local
// dates.
#pragma once

#include <gatewise/plist.h>

#include <string>
#include <utility>
#include <vector>

#include "daemon/limits/computer_limit.h"
#include "platform/time/local_time.h"

namespace gwtest::daemon {

using gw::plist::Value;

struct Curfew {
  std::string day;  // "monday" ...
  std::string start, end;
};
struct Allowance {
  int seconds;
  int fromDay, toDay;
  bool weekly = false;
};

// A "com.morvane.gatewise.timelimits" preference with one enabled computer item.
inline Value timeLimits(const std::vector<Curfew>& curfews,
                        const std::vector<Allowance>& allowances) {
  auto days = gw::plist::Dictionary::make();
  for (const Curfew& c : curfews) {
    if (!days->contains(c.day)) days->set(c.day, Value::newArray());
    days->get(c.day).array()->append(Value::newDictionary({{"start", c.start}, {"end", c.end}}));
  }
  auto list = gw::plist::Array::make();
  for (const Allowance& a : allowances) {
    list->append(Value::newDictionary({{"timeLimitSeconds", a.seconds},
                                       {"fromDay", a.fromDay},
                                       {"toDay", a.toDay},
                                       {"span", a.weekly ? 1 : 0}}));
  }
  Value item = Value::newDictionary({{"itemType", gw::daemon::kComputerItemType},
                                     {"name", "Computer"},
                                     {"enabled", true},
                                     {"allowancesActive", true},
                                     {"curfews", Value(days)},
                                     {"allowances", Value(list)}});
  return Value::newDictionary({{"limits-list", Value::newArray({item})}});
}

inline gw::plist::Date local(int y, int mo, int d, int h, int mi, int s = 0) {
  return gw::time::dateFromLocalTime(y, mo, d, h, mi, s);
}

}  // namespace gwtest::daemon
