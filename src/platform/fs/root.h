// The system root: every fixed absolute path of the system is resolved below it.
//
// The root is the environment variable GATEWISE_ROOT (read with secure_getenv, so a set-id process
// ignores it), default "/". rootedPath() is the only place that joins a root to a path; nothing
// else concatenates one. Names that come from callers (user names, domains) must pass isSafeName()
// before they are joined into any path. Thread-safe as long as nobody changes the environment.
#pragma once

#include <string>
#include <string_view>

namespace gw::fs {

// The root folder, without a trailing slash unless it is "/" itself.
std::string systemRoot();

// absolutePath (which starts with "/") below the system root: "/Library/X" -> "<root>/Library/X".
std::string rootedPath(std::string_view absolutePath);

// A name that can be one path component: non-empty, no "/", no NUL, and not "." or "..".
bool isSafeName(std::string_view name);

}  // namespace gw::fs
