// The default authorization provider: polkit's CheckAuthorization over the system bus.
//
// The subject is the calling process ("unix-process": pid, its start time in clock ticks since
// boot from /proc/self/stat, and the real uid), the action id the right, no details, polkit flag 1
// (allow user interaction) when the request allows interaction, no cancellation id. An answer of
// is_authorized grants (status 0, with the preset override minutes as "time"); a dismissed dialog
// is kStatusCanceled, any other refusal kStatusDenied; a bus that cannot be reached or a failed
// call is kStatusInternal, logged. With interaction the call may wait for an administrator for up
// to kInteractiveTimeout. Stateless; any thread.
#pragma once

#include <gatewise/auth.h>

#include <chrono>
#include <cstdint>
#include <optional>

namespace gw::auth {

inline constexpr std::chrono::minutes kInteractiveTimeout{10};
inline constexpr std::chrono::seconds kQuietTimeout{25};

// Field 22 of /proc/self/stat, or nullopt when it cannot be read.
std::optional<std::uint64_t> processStartTime();

}  // namespace gw::auth
