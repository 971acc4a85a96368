// Captures the library's log lines for one test and restores the previous destinations and
// threshold afterwards.
#pragma once

#include <gatewise/log.h>

#include <mutex>
#include <string>
#include <vector>

namespace gwtest {

class LogCapture {
 public:
  // threshold: the logging level for the test's lifetime (-1: read the preference).
  explicit LogCapture(int threshold = 3);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  // Whether any captured line contains text.
  bool contains(const std::string& text) const;
  void clear();

 private:
  gw::LogDestinations previous_;
  std::int32_t previousThreshold_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace gwtest
