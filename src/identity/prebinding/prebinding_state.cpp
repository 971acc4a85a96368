#include "identity/prebinding/prebinding_state.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace gw::macho {
namespace {

constexpr std::size_t kErrorBufferSize = 8192;

PrebindingState gState;

// Appends formatted text at the cursor, never past kErrorBufferSize - 1 characters in all.
void append(const char* format, va_list arguments) {
  PrebindingState& state = gState;
  if (state.errorMessage == nullptr) {
    state.errorMessage = static_cast<char*>(std::malloc(kErrorBufferSize));
    if (state.errorMessage == nullptr) {
      std::fprintf(stderr, "%s: virtual memory exhausted (malloc failed)\n",
                   state.progname != nullptr ? state.progname : "unprebind");
      return;
    }
    state.errorMessage[0] = '\0';
    state.cursor = 0;
  }
  std::size_t room = kErrorBufferSize - 1 - state.cursor;
  if (room == 0) return;
  int written = std::vsnprintf(state.errorMessage + state.cursor, room + 1, format, arguments);
  if (written > 0) state.cursor += std::min<std::size_t>(std::size_t(written), room);
}

void appendf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void appendf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  append(format, arguments);
  va_end(arguments);
}

void prefix() {
  if (gState.progname != nullptr) appendf("%s: ", gState.progname);
}

void withLabel(const std::string& label, const char* format, va_list arguments) {
  prefix();
  append(format, arguments);
  appendf("%s\n", label.c_str());
}

}  // namespace

PrebindingState& statics() { return gState; }

void reset_statics() {
  std::free(gState.errorMessage);
  gState = PrebindingState{};
}

void release_statics(char** result) {
  if (result != nullptr) {
    *result = gState.errorMessage;
  } else {
    std::free(gState.errorMessage);
  }
  gState.errorMessage = nullptr;
  gState = PrebindingState{};
}

std::string fileLabel(const OFile& ofile, const ArchRecord* arch) {
  std::string label = ofile.name;
  if (arch != nullptr && !arch->memberName.empty()) label += "(" + arch->memberName + ")";
  if (arch != nullptr && !arch->archName.empty() && ofile.kind == FileKind::Fat) {
    label += " (for architecture " + arch->archName + ")";
  }
  return label;
}

void vmessage(const char* format, va_list arguments) { append(format, arguments); }

void message(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  append(format, arguments);
  va_end(arguments);
}

void error(const char* format, ...) {
  prefix();
  va_list arguments;
  va_start(arguments, format);
  append(format, arguments);
  va_end(arguments);
  appendf("\n");
  ++gState.errors;
}

void warning(const char* format, ...) {
  prefix();
  appendf("warning: ");
  va_list arguments;
  va_start(arguments, format);
  append(format, arguments);
  va_end(arguments);
  appendf("\n");
}

void system_error(const char* format, ...) {
  int saved = errno;
  prefix();
  va_list arguments;
  va_start(arguments, format);
  append(format, arguments);
  va_end(arguments);
  appendf(" (%s)\n", std::strerror(saved));
  ++gState.errors;
}

void my_mach_error(int code, const char* format, ...) {
  prefix();
  va_list arguments;
  va_start(arguments, format);
  append(format, arguments);
  va_end(arguments);
  appendf(" (error %d)\n", code);
  ++gState.errors;
}

void error_with_arch(const char* archName, const char* format, ...) {
  prefix();
  if (archName != nullptr) appendf("for architecture: %s ", archName);
  va_list arguments;
  va_start(arguments, format);
  append(format, arguments);
  va_end(arguments);
  appendf("\n");
  ++gState.errors;
}

void warning_arch(const OFile& ofile, const ArchRecord* arch, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  prefix();
  appendf("warning: ");
  append(format, arguments);
  appendf("%s\n", fileLabel(ofile, arch).c_str());
  va_end(arguments);
}

void error_arch(const OFile& ofile, const ArchRecord* arch, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  withLabel(fileLabel(ofile, arch), format, arguments);
  va_end(arguments);
  ++gState.errors;
}

void message_with_arch(const OFile& ofile, const ArchRecord* arch, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  withLabel(fileLabel(ofile, arch), format, arguments);
  va_end(arguments);
}

void archive_error(const OFile& ofile, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  withLabel(ofile.name, format, arguments);
  va_end(arguments);
  ++gState.errors;
}

void archive_member_error(const OFile& ofile, const ArchRecord& member, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  withLabel(ofile.name + "(" + member.memberName + ")", format, arguments);
  va_end(arguments);
  ++gState.errors;
}

void Mach_O_error(const OFile& ofile, const ArchRecord& arch, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  withLabel(fileLabel(ofile, &arch), format, arguments);
  va_end(arguments);
  ++gState.errors;
}

void fatal_arch(const OFile& ofile, const ArchRecord* arch, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  withLabel(fileLabel(ofile, arch), format, arguments);
  va_end(arguments);
  ++gState.errors;
  throw FatalError{};
}

void redo_exit(int) { throw FatalError{}; }

void fatal(const char* format, ...) {
  std::fprintf(stderr, "%s: ", gState.progname != nullptr ? gState.progname : "gatewise");
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  std::exit(EXIT_FAILURE);
}

void system_fatal(const char* format, ...) {
  int saved = errno;
  std::fprintf(stderr, "%s: ", gState.progname != nullptr ? gState.progname : "gatewise");
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fprintf(stderr, " (%s)\n", std::strerror(saved));
  std::exit(EXIT_FAILURE);
}

}  // namespace gw::macho
