// Sets TZ (and, optionally, the week-data locale) for one test and restores the previous value
// afterwards, calling tzset() both times so that localtime_r sees the change.
#pragma once

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

}  // namespace gwtest
