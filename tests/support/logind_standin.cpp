#include "support/logind_standin.h"

namespace gwtest {

bool runLoopUntil(sd_event* loop, const std::function<bool()>& condition,
                  std::chrono::milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeout;
  while (!condition()) {
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    if (sd_event_run(loop, std::uint64_t(left.count())) < 0) return false;
  }
  return true;
}

}  // namespace gwtest
