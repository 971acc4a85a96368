// What the application registry knows about one item on disk: whether it is a plain file, a
// package (a folder shown as one item), an application, an executable file; and its creator code.
//
// Linux has no catalog of item flags, so they are worked out from the file itself:
//   plain file       a regular file (links followed)
//   package          a folder whose name ends in a package extension (".app", ".bundle",
//                    ".framework", ".plugin", ".wdgt", ".kext", ".xpc", ".appex"; any case), or
//                    one holding "Contents/Info.plist"
//   application      a package whose extension is ".app"
//   executable file  a regular file with any execute permission bit set
// The creator code of the classic file-system metadata does not exist here: it is always absent.
//
// isExecutableImage reads a program's header: Mach-O (thin, of either byte order, or fat)
// executables and preloaded images, and ELF executables: type ET_EXEC, or ET_DYN with an
// interpreter (PT_INTERP) or flagged position-independent executable (DF_1_PIE in DT_FLAGS_1,
// as static-pie programs are). Shared libraries without an interpreter, objects, scripts and
// anything else are not. Every read is bounded by the file's size and by fixed counts, so a
// hostile header cannot make it read far or loop long.
//
// Stateless; any thread; nothing throws.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace gw::iteminfo {

enum ItemFlags : std::uint32_t {
  kItemIsPlainFile = 0x1,
  kItemIsPackage = 0x2,
  kItemIsApplication = 0x4,
  kItemIsExecutableFile = 0x2000,
};

// The flags of the item at path (links followed); nullopt with *error (an errno) when it cannot
// be examined.
std::optional<std::uint32_t> itemFlags(const std::string& path, int* error = nullptr);

// Whether path names a package (see above).
bool isPackage(const std::string& path);

// The file's creator code; never present on this platform.
std::optional<std::uint32_t> fileCreatorCode(const std::string& path);

// Whether the open file at fd holds an executable image (see above).
bool isExecutableImage(int fd);

}  // namespace gw::iteminfo
