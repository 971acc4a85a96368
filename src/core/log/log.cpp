// The log's threshold, destinations and line writer.
#include <gatewise/log.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <mutex>

#include "platform/prefs/host_preferences.h"

std::int32_t gGWFrameworkLoggingLevel = -1;

namespace gw {
namespace {

constexpr const char* kLogDomain = "com.morvane.Gatewise";
constexpr const char* kLogLevelKey = "logLevel";

// Destinations change rarely (at start-up, in tests). Each line takes a snapshot under the lock and
// writes outside it, so a capture function may log, and a slow destination blocks nobody else.
struct DestinationsHolder {
  std::mutex lock;
  std::shared_ptr<const LogDestinations> current = std::make_shared<const LogDestinations>();
};

DestinationsHolder& holder() {
  static DestinationsHolder h;
  return h;
}

std::shared_ptr<const LogDestinations> snapshot() {
  DestinationsHolder& h = holder();
  std::lock_guard guard(h.lock);
  return h.current;
}

void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // nowhere to report a failing standard error
    done += std::size_t(n);
  }
}

}  // namespace

std::int32_t loadLoggingThreshold() {
  std::atomic_ref<std::int32_t> level(gGWFrameworkLoggingLevel);
  std::int32_t threshold = level.load(std::memory_order_relaxed);
  if (threshold != -1) return threshold;
  // A number, or a string of digits ("2"); absent or unreadable means 0. A stored -1 stays "not
  // read yet", so the next call looks again.
  std::optional<plist::Value> value = prefs::copyHostValue(kLogDomain, kLogLevelKey);
  threshold =
      value ? std::int32_t(std::clamp<std::int64_t>(value->intValue(), INT32_MIN, INT32_MAX)) : 0;
  level.store(threshold, std::memory_order_relaxed);
  return threshold;
}

void writeLogLine(const char* function, std::int32_t line, std::string_view message) {
  std::string text = format("%s [%d] -- %@", function ? function : "unknown", line, message);
  std::shared_ptr<const LogDestinations> d = snapshot();
  // Through "%s", so that a percent sign in the message is never read as a conversion. No
  // openlog: the host program owns the ident and facility, the library only adds lines.
  if (d->syslog) ::syslog(LOG_ERR, "%s", text.c_str());
  if (d->standardError) writeAll(STDERR_FILENO, text + '\n');
  if (d->capture) d->capture(text);
}

void setLogDestinations(LogDestinations destinations) {
  auto next = std::make_shared<const LogDestinations>(std::move(destinations));
  DestinationsHolder& h = holder();
  std::lock_guard guard(h.lock);
  h.current = std::move(next);
}

LogDestinations logDestinations() { return *snapshot(); }

void logCaughtException(const char* function, std::int32_t line, const std::exception& e) {
  GWFrameworkLog(0, function, line, "*** Caught exception: %@", e);
}

}  // namespace gw
