// The unprebinding toolkit's process-wide state and its message helpers.
//
// The state (program name, error-message buffer, error count, mode switches, dylib slide) is
// global and not re-entrant: callers serialise every entry point. Each entry point calls
// reset_statics on entry and release_statics on every exit. Messages are appended to one 8192-byte
// buffer (at most 8191 characters in all), allocated on first use, which the entry point hands to
// its caller or frees. A fatal error throws FatalError, which only the entry point catches: the
// C++ form of jumping back to the entry, so every destructor on the way runs.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

#include "identity/prebinding/ofile.h"

namespace gw::macho {

struct FatalError {};

struct PrebindingState {
  const char* progname = nullptr;
  char* errorMessage = nullptr;
  std::size_t cursor = 0;
  std::uint32_t errors = 0;
  bool unprebinding = false;
  bool zeroOutPrebindChecksum = false;
  bool checkIfNeeded = false;
  bool seenArchNeeded = false;
  bool archProcessed = false;
  bool debug = false;
  std::int64_t dylibSlide = 0;
};

PrebindingState& statics();
void reset_statics();
// Frees the error buffer unless it is handed out; hands it out through `result` when given.
void release_statics(char** result);

#define GW_PRINTF(f, a) __attribute__((format(printf, f, a)))
void vmessage(const char* format, va_list arguments) GW_PRINTF(1, 0);
void message(const char* format, ...) GW_PRINTF(1, 2);
// "<progname>: " (when there is a program name), the text and a newline; error counts an error.
void error(const char* format, ...) GW_PRINTF(1, 2);
void warning(const char* format, ...) GW_PRINTF(1, 2);
void system_error(const char* format, ...) GW_PRINTF(1, 2);  // adds " (<errno text>)"
void my_mach_error(int code, const char* format, ...) GW_PRINTF(2, 3);
// The text, then the file label "<file>[(<member>)] [(for architecture <arch>)]".
void error_with_arch(const char* archName, const char* format, ...) GW_PRINTF(2, 3);
void warning_arch(const OFile& ofile, const ArchRecord* arch, const char* format, ...)
    GW_PRINTF(3, 4);
void error_arch(const OFile& ofile, const ArchRecord* arch, const char* format, ...)
    GW_PRINTF(3, 4);
void message_with_arch(const OFile& ofile, const ArchRecord* arch, const char* format, ...)
    GW_PRINTF(3, 4);
void archive_error(const OFile& ofile, const char* format, ...) GW_PRINTF(2, 3);
void archive_member_error(const OFile& ofile, const ArchRecord& member, const char* format, ...)
    GW_PRINTF(3, 4);
void Mach_O_error(const OFile& ofile, const ArchRecord& arch, const char* format, ...)
    GW_PRINTF(3, 4);
// Counts an error, adds the text and ends the call (throws FatalError).
[[noreturn]] void fatal_arch(const OFile& ofile, const ArchRecord* arch, const char* format, ...)
    GW_PRINTF(3, 4);
[[noreturn]] void redo_exit(int value);

// The reader's own fatal errors, reached only on internal faults: "<progname>: <text>" on
// standard error, then the process ends.
[[noreturn]] void fatal(const char* format, ...) GW_PRINTF(1, 2);
[[noreturn]] void system_fatal(const char* format, ...) GW_PRINTF(1, 2);
#undef GW_PRINTF

// "<file>" or "<file>(<member>)", with " (for architecture <arch>)" when the name is known.
std::string fileLabel(const OFile& ofile, const ArchRecord* arch);

}  // namespace gw::macho
