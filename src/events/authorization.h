// The external form of an authorization on this system (layout in gatewise/events.h): made by a
// process for itself, checked by the daemon against the socket's credentials.
//
// Layout, little-endian: bytes 0-3 "GWAX", 4-7 version 1, 8-11 pid, 12-15 effective uid, 16-23 the
// process's start time in clock ticks since boot (/proc/<pid>/stat field 22), 24-31 zero. Pure
// apart from reading /proc; any thread.
#pragma once

#include <gatewise/events.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace gw::events {

inline constexpr std::uint32_t kExternalFormVersion = 1;

// Field 22 of /proc/<pid>/stat, or nullopt when the process is gone or the file unreadable.
std::optional<std::uint64_t> startTimeOfProcess(pid_t pid);

// The form for the calling process, or nullopt when its start time cannot be read.
std::optional<GWAuthorizationExternalForm> externalFormOfThisProcess();

// Empty when bytes are a well-formed form made by the process pid (running as uid, started at the
// time /proc reads now); otherwise why not.
std::string checkExternalForm(std::span<const std::uint8_t> bytes, pid_t pid, uid_t uid);

}  // namespace gw::events
