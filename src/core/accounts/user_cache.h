// Internal hooks of the per-user cache (CachedUserDictionaryForUID in include/gatewise/core.h).
//
// The cache registers its change observer on first use and, when the bus is down then, on every
// later use until the registration succeeds. Any thread.
#pragma once

namespace gw::accounts {

// Whether the observer that drops the cache on managed-settings changes is registered.
bool changeObserverRegistered();
// Removes the observer, so that a test can meet the first use again.
void forgetChangeObserverForTesting();

}  // namespace gw::accounts
