// Reading the property-list files that root-run programs take from folders other users may
// reach: the time-limits preference and the overrides file.
//
// The file itself is opened without following a symbolic link (a link planted in its place is
// refused, not read), must be a regular file no larger than kMaxStoredFileSize, and is parsed with
// mutable containers. Failures come back as nullopt with a one-line reason; nothing throws.
// Thread-safe.
#pragma once

#include <gatewise/plist.h>

#include <cstddef>
#include <optional>
#include <string>

namespace gw::limits {

inline constexpr std::size_t kMaxStoredFileSize = std::size_t(16) << 20;

// The file's top-level value, or nullopt (with *error set) when it cannot be read or parsed.
std::optional<plist::Value> readStoredPropertyList(const std::string& path,
                                                   std::string* error = nullptr);

// Whether path names an existing entry (without following a link at path itself).
bool storedFileExists(const std::string& path);

}  // namespace gw::limits
