// The daemon's one view of time.
//
// Decisions are made on the wall clock (curfews and days are wall-clock things); timers and the
// length of intervals that must not jump use the monotonic clock. Everything in the daemon asks a
// Clock instead of the system, so unit tests drive time with a ManualClock and never sleep, and
// end-to-end tests move the system's wall clock with faketime. No production option changes the
// time. Not thread-safe; the daemon has one thread.
#pragma once

#include <gatewise/plist.h>

#include <cstdint>

namespace gw::daemon {

class Clock {
 public:
  virtual ~Clock() = default;
  // Now on the wall clock.
  virtual plist::Date wallNow() const = 0;
  // Now on the monotonic clock, in microseconds (CLOCK_MONOTONIC, sd-event's own base).
  virtual std::uint64_t monotonicMicroseconds() const = 0;
};

class SystemClock final : public Clock {
 public:
  plist::Date wallNow() const override;
  std::uint64_t monotonicMicroseconds() const override;
};

// A clock that moves only when told to: both clocks advance together with advance(), and set()
// moves the wall clock alone (a clock jump).
class ManualClock final : public Clock {
 public:
  explicit ManualClock(plist::Date start) : wall_(start) {}
  plist::Date wallNow() const override { return wall_; }
  std::uint64_t monotonicMicroseconds() const override { return monotonic_; }
  void advance(double seconds) {
    wall_.secondsSinceReferenceDate += seconds;
    monotonic_ += std::uint64_t(seconds * 1e6);
  }
  void set(plist::Date wall) { wall_ = wall; }

 private:
  plist::Date wall_;
  std::uint64_t monotonic_ = 1'000'000;
};

}  // namespace gw::daemon
