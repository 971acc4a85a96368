// Path standardisation: tilde expansion, "." and ".." removal, duplicate slashes.
//
// standardizedPath works on the text of a path; it never looks at the file system (symbolic links
// are not resolved). A relative path is made absolute against the process's current folder as it
// was on the first call that needed it: the folder is read once and cached for the life of the
// process, so a later chdir() does not change results. Home folders come from the password
// database (getpwuid_r/getpwnam_r), not from below the system root. Every function is thread-safe
// and reports failure by result (nullopt, or the path left unchanged), never by throwing.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace gw::fs {

// "~" and "~/..." expand to the home folder of the process's real user, "~name" and "~name/..."
// to name's; components are joined with single slashes, "." is dropped and ".." removes the
// component before it ("/.." is "/"); a trailing slash is removed. A path whose tilde cannot be
// expanded (unknown user) comes back unchanged. "" stays "".
std::string standardizedPath(std::string_view path);

// The home folder of a user, from the password database.
std::optional<std::string> homeFolderForUserName(std::string_view userName);
std::optional<std::string> homeFolderForUID(uid_t uid);

// The process's current folder as first read (see above), or nullopt when it could not be read.
const std::optional<std::string>& cachedCurrentFolder();

}  // namespace gw::fs
