// The library's log: one entry point, one process-wide threshold.
//
// Every line is written as "%s [%d] -- %@" (calling function, source line, message) to the system
// log at error priority. A message is written when its level is at most gGWFrameworkLoggingLevel;
// the threshold starts at -1, meaning "not read yet", and the first call reads the host-wide
// preference "logLevel" of "com.morvane.Gatewise" (absent: 0). Host programs may store their own
// threshold in gGWFrameworkLoggingLevel at any time; storing -1 makes the next call read the
// preference again. Levels: 0 errors and fallbacks, 1 notable events, 2 trace, 3 launch detail.
//
// A suppressed message costs one integer comparison: GW_LOG tests the threshold before it even
// evaluates its arguments, and nothing is formatted below the threshold. Callable from any thread;
// the threshold is a plain integer without a lock (the library reads and writes it as a relaxed
// atomic, so two first calls racing to read the preference store the same value harmlessly).
//
// Lines go to syslog(3) at LOG_ERR through "%s" (no openlog: the ident is the program's name),
// and, when asked, to standard error and to a capture function (see LogDestinations).
#pragma once

#include <gatewise/export.h>
#include <gatewise/format.h>
#include <gatewise/framework_log.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <string_view>

namespace gw {

// Reads the threshold from the host-wide preference when it is -1, stores and returns it.
GW_EXPORT std::int32_t loadLoggingThreshold();

// Whether a message of this level is written now (reads the preference on the first call).
inline bool logLevelEnabled(std::int32_t level) {
  std::int32_t threshold =
      std::atomic_ref<std::int32_t>(gGWFrameworkLoggingLevel).load(std::memory_order_relaxed);
  if (threshold == -1) [[unlikely]]
    threshold = loadLoggingThreshold();
  return level <= threshold;
}

// Writes one formatted message as "<function> [<line>] -- <message>" to every destination.
// A null function is written as "unknown".
GW_EXPORT void writeLogLine(const char* function, std::int32_t line, std::string_view message);

// The log entry for C++ callers: writes the message when level is at most the threshold. C host
// programs call ::GWFrameworkLog (gatewise/framework_log.h), which takes printf arguments.
template <class... Args>
inline void GWFrameworkLog(std::int32_t level, const char* function, std::int32_t line,
                           std::string_view format, const Args&... args) {
  if (!logLevelEnabled(level)) return;
  writeLogLine(function, line, gw::format(format, args...));
}

// Where lines go besides syslog. Tests and host programs may capture them; the CLI's --log-stderr
// copies them to standard error.
struct LogDestinations {
  bool syslog = true;
  bool standardError = false;
  // Called with each whole line (without a trailing newline) when set, on the logging thread,
  // outside any lock of the log (it may log itself).
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

namespace gw {

// The name a log line gives its caller: `function` (the caller's __func__), except inside a lambda,
// whose __func__ is "operator()": then the function that encloses the lambda, read from the
// compiler's full signature `pretty` (__PRETTY_FUNCTION__). The returned text lives as long as the
// process.
GW_EXPORT const char* logFunctionName(const char* function, const char* pretty);

}  // namespace gw

#define GW_LOG_FUNCTION ::gw::logFunctionName(__func__, __PRETTY_FUNCTION__)

// GW_LOG(level, format, ...): logs with the calling function's name and line (in a lambda, the
// name of the function around it). The arguments are not evaluated at all when the level is above
// the threshold.
#define GW_LOG(level, ...)                                                      \
  do {                                                                          \
    if (::gw::logLevelEnabled(level)) {                                         \
      ::gw::writeLogLine(GW_LOG_FUNCTION, __LINE__, ::gw::format(__VA_ARGS__)); \
    }                                                                           \
  } while (0)
#define GW_LOG_CAUGHT(exception) ::gw::logCaughtException(GW_LOG_FUNCTION, __LINE__, (exception))
