/* The library's log entry for host programs in C (and C++): the exported threshold and
 * GWFrameworkLog with C linkage.
 *
 * GWFrameworkLog(level, function, line, format, ...) writes "<function> [<line>] -- <message>"
 * to the system log when level is at most gGWFrameworkLoggingLevel (see gatewise/log.h for the
 * threshold, its preference and the destinations). The format takes the printf conversions; "%@"
 * takes a C string here, since a C caller has no objects to describe. A null function is written
 * as "unknown". Callable from any thread.
 *
 * C++ code inside the library logs through GW_LOG (gatewise/log.h), which also formats objects. */
#ifndef GATEWISE_FRAMEWORK_LOG_H
#define GATEWISE_FRAMEWORK_LOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

__attribute__((visibility("default"))) extern int32_t gGWFrameworkLoggingLevel;

__attribute__((visibility("default"))) void GWFrameworkLog(int32_t level, const char* function,
                                                           int32_t line, const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif /* GATEWISE_FRAMEWORK_LOG_H */
