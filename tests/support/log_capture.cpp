#include "support/log_capture.h"

namespace gwtest {

LogCapture::LogCapture(int threshold)
    : previous_(gw::logDestinations()), previousThreshold_(gGWFrameworkLoggingLevel) {
  gGWFrameworkLoggingLevel = threshold;
  gw::LogDestinations d;
  d.syslog = false;
  d.capture = [this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  };
  gw::setLogDestinations(std::move(d));
}

LogCapture::~LogCapture() {
  gw::setLogDestinations(previous_);
  gGWFrameworkLoggingLevel = previousThreshold_;
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

bool LogCapture::contains(const std::string& text) const {
  std::lock_guard lock(mutex_);
  for (const auto& line : lines_) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

}  // namespace gwtest
