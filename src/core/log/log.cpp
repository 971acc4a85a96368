// The log's threshold, destinations and line writer.
#include <gatewise/log.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
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

namespace {

// "ns::K::method(int) const::<lambda()>" (GCC) or "auto ns::K::method(int)::(anonymous
// class)::operator()() const" (Clang) -> "method"; empty when the text has no such shape.
std::string enclosingFunctionOfLambda(std::string_view pretty) {
  std::size_t cut = std::string_view::npos;
  for (std::string_view marker : {"::<lambda", "::(anonymous class)", "::(lambda"}) {
    cut = std::min(cut, pretty.find(marker));
  }
  if (cut == std::string_view::npos) return {};
  std::string_view outer = pretty.substr(0, cut);
  // Back over the qualifiers and the parameter list, whose types may hold parentheses too.
  std::size_t close = outer.rfind(')');
  if (close == std::string_view::npos) return {};
  int depth = 0;
  std::size_t at = close + 1;
  while (at-- > 0) {
    if (outer[at] == ')') ++depth;
    if (outer[at] == '(' && --depth == 0) break;
  }
  if (at == std::string_view::npos || at == 0) return {};
  std::size_t end = at;
  if (outer[end - 1] == '>') {  // template arguments of the enclosing function
    depth = 0;
    while (end-- > 0) {
      if (outer[end] == '>') ++depth;
      if (outer[end] == '<' && --depth == 0) break;
    }
    if (end == std::string_view::npos) return {};
  }
  std::size_t begin = end;
  auto isNameChar = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '~';
  };
  while (begin > 0 && isNameChar(outer[begin - 1])) --begin;
  return std::string(outer.substr(begin, end - begin));
}

}  // namespace

const char* logFunctionName(const char* function, const char* pretty) {
  if (!function || std::strcmp(function, "operator()") != 0 || !pretty) return function;
  // One entry per lambda that logs; the text of __PRETTY_FUNCTION__ has a fixed address.
  static std::mutex lock;
  static auto* names = new std::map<const char*, std::string>();  // never destroyed: logged at exit
  std::lock_guard guard(lock);
  auto found = names->find(pretty);
  if (found == names->end()) {
    std::string name = enclosingFunctionOfLambda(pretty);
    found = names->emplace(pretty, name.empty() ? std::string(function) : name).first;
  }
  return found->second.c_str();
}

void logCaughtException(const char* function, std::int32_t line, const std::exception& e) {
  GWFrameworkLog(0, function, line, "*** Caught exception: %@", e);
}

}  // namespace gw

void GWFrameworkLog(std::int32_t level, const char* function, std::int32_t line, const char* format,
                    ...) {
  if (!gw::logLevelEnabled(level) || !format) return;
  va_list args;
  va_start(args, format);
  try {  // nothing may unwind into a C caller
    // "%@" has no object to describe in C: it takes a C string, as "%s" does.
    std::string printfFormat;
    for (const char* p = format; *p; ++p) {
      printfFormat += *p;
      if (*p != '%' || !p[1]) continue;
      ++p;
      printfFormat += *p == '@' ? 's' : *p;  // "%%" is copied whole, so "%%@" stays literal
    }
    va_list again;
    va_copy(again, args);
    char small[512];
    int length = std::vsnprintf(small, sizeof small, printfFormat.c_str(), again);
    va_end(again);
    std::string message;
    if (length >= int(sizeof small)) {
      message.resize(std::size_t(length) + 1);
      std::vsnprintf(message.data(), message.size(), printfFormat.c_str(), args);
      message.resize(std::size_t(length));
    } else if (length >= 0) {
      message.assign(small, std::size_t(length));
    }
    gw::writeLogLine(function, line, message);
  } catch (...) {
  }
  va_end(args);
}
