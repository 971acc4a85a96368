#include "refresh_schedule.h"

#include <algorithm>

namespace gw::agent {

double nextFetchTime(const RefreshPolicy& policy, double lastFetch,
                     std::optional<double> requestedAt, const std::vector<double>& expirations) {
  bool pending = false;
  double next = lastFetch + policy.idleInterval;
  for (double expiration : expirations) {
    if (expiration + policy.afterExpiration <= lastFetch) continue;  // acted on already
    pending = true;
    next = std::min(next, expiration + policy.afterExpiration);
  }
  if (pending) next = std::min(next, lastFetch + policy.busyInterval);
  if (requestedAt) next = std::min(next, std::max(*requestedAt, lastFetch + policy.minimumSpacing));
  return std::max(next, lastFetch + policy.minimumSpacing);
}

}  // namespace gw::agent
