// The overrides file of one user: where it is, today's day key, and reading and writing it.
//
// Internal to the overrides functions (gatewise/schedule/overrides.h). The file is read without
// following a link at the file and written atomically; the user's folder is created owned by root
// and the "admin" group. Nothing here throws except what the value model throws on misuse.
#pragma once

#include <gatewise/plist.h>

#include <optional>
#include <string>
#include <string_view>

namespace gw::overrides {

inline constexpr std::string_view kOverridesFileName = "com.morvane.gatewise.overrides.plist";

// "<user folder>/com.morvane.gatewise.overrides.plist", standardised; nil for a refused name.
std::optional<std::string> overridesFilePath(std::string_view userName);

// "%Y-%m-%d" of the local calendar date of now (TZ).
std::string todayKey();

// Creates the user's folder (without intermediates) when it is missing, owned by root and the
// "admin" group, mode 0755. Logs "*** Couldn't create %@" when it still does not exist.
void ensureUserFolder(const std::string& folder);

// The file's top-level dictionary with mutable containers all the way down, or nullopt when the
// file is missing, unreadable or holds something else.
std::optional<plist::DictionaryRef> readOverrides(const std::string& path);

// Writes the whole dictionary atomically, with the log lines of success and failure.
void writeOverrides(const std::string& path, const plist::DictionaryRef& overrides);

}  // namespace gw::overrides
