// The logins a utmp file records: its USER_PROCESS records, counted per uid.
//
// The file is read with bounded reads (at most kMaxUtmpBytes; records past that are ignored and the
// fact logged) without following a symbolic link, and only when it is a regular file. Records whose
// name the password database does not know are skipped. A missing file records no login; any other
// failure to read is logged and also gives no login. Thread-safe (no shared state).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>

namespace gw::daemon {

inline constexpr std::size_t kMaxUtmpBytes = 1 << 20;

std::map<uid_t, unsigned> loginsInUtmpFile(const std::string& path);

}  // namespace gw::daemon
