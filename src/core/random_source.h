// The random source of UUIDString (include/gatewise/core.h): getrandom(2), retried a bounded
// number of times, then OpenSSL's generator; an empty string (logged) when both fail. Tests put a
// failing getrandom in its place. Not meant to be swapped while other threads make UUIDs.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace gw::core {

using GetrandomFunction = ssize_t (*)(void* buffer, std::size_t size, unsigned flags);
// nullptr restores the system's getrandom.
void setGetrandomForTesting(GetrandomFunction function);

}  // namespace gw::core
