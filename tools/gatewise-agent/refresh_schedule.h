// When the agent next asks the daemon for the user's status items.
//
// Nothing tells the agent that the daemon has made a new warning, so besides the moments it knows
// of (a request after a login-status or settings notification, one second after the next item
// expires, when the daemon has acted) it asks again after a while: every kBusyInterval while an
// item is pending (more warnings or the final alert are near), every kIdleInterval otherwise. A
// request never comes sooner than kMinimumSpacing after the previous fetch, so a flood of
// notifications costs one fetch a second. All times are Unix seconds.
#pragma once

#include <optional>
#include <vector>

namespace gw::agent {

struct RefreshPolicy {
  double idleInterval = 60;
  double busyInterval = 10;
  double minimumSpacing = 1;
  double afterExpiration = 1;
};

// The moment of the next fetch after one at lastFetch that saw items expiring at `expirations`;
// requestedAt is when a fetch was asked for since. The result may lie in the past: fetch at once.
double nextFetchTime(const RefreshPolicy& policy, double lastFetch,
                     std::optional<double> requestedAt, const std::vector<double>& expirations);

}  // namespace gw::agent
