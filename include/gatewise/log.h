// The library's log: one entry point, one process-wide threshold.
//
// Every line is written as "%s [%d] -- %@" (calling function, source line, message) to the system
// log at error priority. A message is written when its level is at most gGWFrameworkLoggingLevel;
// the threshold starts at -1, meaning "not read yet", and the first call reads the host-wide
// preference "logLevel" of "com.morvane.Gatewise" (absent: 0). Host programs may store their own
// threshold in gGWFrameworkLoggingLevel at any time; storing -1 makes the next call read the
// preference again. Levels: 0 errors and fallbacks, 1 notable events, 2 trace, 3 launch detail.
//
// A suppressed message costs one integer comparison: nothing is formatted below the threshold.
// Callable from any thread; the threshold is a plain integer, as racy as it is harmless.
#pragma once

#include <gatewise/export.h>
#include <gatewise/format.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <string_view>

GW_EXTERN_C std::int32_t gGWFrameworkLoggingLevel;

namespace gw {

// Reads the threshold from the host-wide preference when it is -1, stores and returns it.
GW_EXPORT std::int32_t loadLoggingThreshold();

// Writes one formatted message as "<function> [<line>] -- <message>" to every destination.
// A null function is written as "unknown".
GW_EXPORT void writeLogLine(const char* function, std::int32_t line, std::string_view message);

template <class... Args>
inline void GWFrameworkLog(std::int32_t level, const char* function, std::int32_t line,
                           std::string_view format, const Args&... args) {
  std::int32_t threshold = gGWFrameworkLoggingLevel;
  if (threshold == -1) threshold = loadLoggingThreshold();
  if (threshold < level) return;
  writeLogLine(function, line, gw::format(format, args...));
}

// Where lines go besides syslog. Tests and host programs may capture them; the CLI's --log-stderr
// copies them to standard error.
struct LogDestinations {
  bool syslog = true;
  bool standardError = false;
  // Called with each whole line (without a trailing newline) when set.
  std::function<void(std::string_view line)> capture;
};
GW_EXPORT void setLogDestinations(LogDestinations destinations);
GW_EXPORT LogDestinations logDestinations();

// The exception convention of every entry point: logs "*** Caught exception: %@" at level 0.
GW_EXPORT void logCaughtException(const char* function, std::int32_t line, const std::exception& e);

// Runs body; if it throws a std::exception, logs it as an entry point does and returns failure.
template <class R, class Body>
R returningOnException(const char* function, std::int32_t line, R failure, Body&& body) {
  try {
    return body();
  } catch (const std::exception& e) {
    logCaughtException(function, line, e);
    return failure;
  }
}

}  // namespace gw

#define GW_LOG(level, ...) ::gw::GWFrameworkLog((level), __func__, __LINE__, __VA_ARGS__)
#define GW_LOG_CAUGHT(exception) ::gw::logCaughtException(__func__, __LINE__, (exception))
