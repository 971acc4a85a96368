#include "daemon/clock.h"

#include <time.h>

namespace gw::daemon {

plist::Date SystemClock::wallNow() const {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return plist::Date::fromUnixTime(double(ts.tv_sec) + double(ts.tv_nsec) / 1e9);
}

std::uint64_t SystemClock::monotonicMicroseconds() const {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return std::uint64_t(ts.tv_sec) * 1'000'000 + std::uint64_t(ts.tv_nsec) / 1000;
}

}  // namespace gw::daemon
