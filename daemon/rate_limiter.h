// A token bucket per key: at most `burst` actions at once, refilled at `perMinute`. What a peer can
// make the daemon do (rereads, flushes, log lines) goes through one, so a noisy client cannot
// flood the disk or the journal. Time comes from the caller (monotonic microseconds).
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>

namespace gw::daemon {

template <typename Key>
class RateLimiter {
 public:
  RateLimiter(double burst, double perMinute) : burst_(burst), perMicrosecond_(perMinute / 60e6) {}

  bool allow(const Key& key, std::uint64_t nowMicroseconds) {
    if (buckets_.size() > kMaxKeys) buckets_.clear();  // bounded memory; forgetting is harmless
    auto [it, fresh] = buckets_.try_emplace(key, Bucket{burst_, nowMicroseconds});
    Bucket& b = it->second;
    if (!fresh) {
      b.tokens = std::min(burst_, b.tokens + double(nowMicroseconds - b.last) * perMicrosecond_);
      b.last = nowMicroseconds;
    }
    if (b.tokens < 1) return false;
    b.tokens -= 1;
    return true;
  }

 private:
  static constexpr std::size_t kMaxKeys = 4096;
  struct Bucket {
    double tokens;
    std::uint64_t last;
  };
  double burst_;
  double perMicrosecond_;
  std::map<Key, Bucket> buckets_;
};

}  // namespace gw::daemon
