// Bundle information for any program, with substitutes where the program has none.
//
// Programs on a white list are keyed by bundle identifier and shown by name, yet many carry no
// bundle information at all (a bare executable, a folder without an information dictionary).
// These functions always produce a name, an identifier and an information dictionary for a path or
// a file URL ("file:///..."): exactly one is needed, the path wins when both are given, and both
// absent gives nil. They first read the information dictionary of the bundle at the path, then
// that of the bundle around it when the file is a bundle's executable ("X.app/Contents/MacOS/X").
//
// Substitute identifiers: "com.unknown.<name>" from GWCopyBundleIDFudgingIfNecessary but
// "com.morvane.unknown.<name>" inside the dictionary of GWCopyInfoDictFudgingIfNecessary; both
// forms are stored in white lists, so both are kept as they are. Files on this platform have no
// creator code: it always reads as empty, so "com.morvane.creatorcode.<code>" never arises here.
//
// Stateless; any thread. Nothing throws; a bundle whose information cannot be read counts as
// having none.
#pragma once

#include <gatewise/export.h>
#include <gatewise/plist.h>

#include <cstdint>
#include <optional>
#include <string>

// "CFBundleName", else the file name without its extension.
GW_EXPORT std::optional<std::string> GWCopyBundleNameFudgingIfNecessary(
    const std::optional<std::string>& path, const std::optional<std::string>& url);

// With an information dictionary: "CFBundleIdentifier", else "com.unknown." followed by
// "CFBundleName", "CFBundleExecutable" or the file name without extension. Without one:
// "com.unknown." and the file name without extension.
GW_EXPORT std::optional<std::string> GWCopyBundleIDFudgingIfNecessary(
    const std::optional<std::string>& path, const std::optional<std::string>& url);

// A mutable copy of the real information dictionary, else a new one holding "CFBundleName" (the
// file name without extension) and "CFBundleIdentifier" ("com.morvane.unknown.<that name>").
GW_EXPORT gw::plist::DictionaryRef GWCopyInfoDictFudgingIfNecessary(
    const std::optional<std::string>& path, const std::optional<std::string>& url);

// The four characters of code, most significant byte first, as they are (zero bytes included).
GW_EXPORT std::string GWGetStringFromOSType(std::uint32_t code);

namespace gw {

// The same from the four bytes in memory order; nil for a code of zero.
GW_EXPORT std::optional<std::string> stringWithOSType(const std::uint8_t (&bytes)[4]);

}  // namespace gw
