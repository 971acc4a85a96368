// The log's threshold, destinations and line writer.
#include <gatewise/log.h>
#include <syslog.h>
#include <unistd.h>

#include <mutex>

#include "platform/prefs/host_preferences.h"

std::int32_t gGWFrameworkLoggingLevel = -1;

namespace gw {
namespace {

constexpr const char* kLogDomain = "com.morvane.Gatewise";
constexpr const char* kLogLevelKey = "logLevel";

// Destinations change rarely (at start-up, in tests); every line reads them under this lock.
std::mutex& destinationsLock() {
  static std::mutex m;
  return m;
}

LogDestinations& destinations() {
  static LogDestinations d;
  return d;
}

}  // namespace

std::int32_t loadLoggingThreshold() {
  std::int32_t threshold = gGWFrameworkLoggingLevel;
  if (threshold != -1) return threshold;
  std::optional<plist::Value> value = prefs::copyHostValue(kLogDomain, kLogLevelKey);
  threshold = value ? std::int32_t(value->intValue()) : 0;
  gGWFrameworkLoggingLevel = threshold;
  return threshold;
}

void writeLogLine(const char* function, std::int32_t line, std::string_view message) {
  std::string text = format("%s [%d] -- %@", function ? function : "unknown", line, message);
  std::lock_guard lock(destinationsLock());
  const LogDestinations& d = destinations();
  // Through "%s", so that a percent sign in the message is never read as a conversion.
  if (d.syslog) ::syslog(LOG_ERR, "%s", text.c_str());
  if (d.standardError) {
    text += '\n';
    ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
    (void)ignored;
    text.pop_back();
  }
  if (d.capture) d.capture(text);
}

void setLogDestinations(LogDestinations d) {
  std::lock_guard lock(destinationsLock());
  destinations() = std::move(d);
}

LogDestinations logDestinations() {
  std::lock_guard lock(destinationsLock());
  return destinations();
}

void logCaughtException(const char* function, std::int32_t line, const std::exception& e) {
  GWFrameworkLog(0, function, line, "*** Caught exception: %@", e);
}

}  // namespace gw
