// Time zones in tests: ScopedTimeZone sets TZ for one test and restores the previous value
// afterwards, calling tzset() both times so that localtime_r sees the change; utc builds a date
// from its UTC wall-clock fields. Call from the test thread only.
#pragma once

#include <gatewise/plist.h>

#include <optional>
#include <string>

namespace gwtest {

class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const std::string& zone);
  ~ScopedTimeZone();
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  std::optional<std::string> previous_;
};

// The date at the given UTC year, month (1-12), day, hour, minute and second.
gw::plist::Date utc(int year, int month, int day, int hour, int minute, int second = 0);

}  // namespace gwtest
