// GWTimer on sd-event: a one-shot monotonic time source on the arming thread's default loop.
#include <gatewise/format.h>
#include <gatewise/log.h>
#include <gatewise/runloop.h>
#include <gatewise/status.h>
#include <systemd/sd-event.h>

#include <cmath>
#include <utility>

namespace gw {
namespace {

// A timer further out than this is armed for this long (about 31 years) rather than overflowing.
constexpr double kLongestIntervalSeconds = 1e9;
// How late sd-event may fire the timer to coalesce wake-ups.
constexpr std::uint64_t kAccuracyUsec = 1000;

std::uint64_t intervalInMicroseconds(double seconds) {
  if (!(seconds > 0)) return 0;  // negative and NaN fire at once
  return std::uint64_t(std::min(seconds, kLongestIntervalSeconds) * 1e6);
}

}  // namespace

GWTimerRef GWTimer::fcTimer() { return std::make_shared<GWTimer>(); }

GWTimer::~GWTimer() {
  GW_LOG(2, "Enter");
  sd_event_source_disable_unref(_timer);
}

void GWTimer::fireWithTarget(Callback callback) {
  GW_LOG(2, "target: %p, interval: %f", static_cast<const void*>(&callback_), _interval);
  _timer = sd_event_source_disable_unref(_timer);
  callback_ = std::move(callback);
  sd_event* loop = runloop::currentRunLoop();
  sd_event_source* source = nullptr;
  if (!loop ||
      sd_event_add_time_relative(loop, &source, CLOCK_MONOTONIC, intervalInMicroseconds(_interval),
                                 kAccuracyUsec, &GWTimer::fired, this) < 0) {
    GW_LOG(0, "*** Coudln't create timer");
    callback_ = nullptr;
    return;
  }
  _timer = source;
}

int GWTimer::fired(sd_event_source*, std::uint64_t, void* userdata) {
  auto* timer = static_cast<GWTimer*>(userdata);
  // The callback may drop the last reference to the timer (stopTimer on its item): keep it alive
  // until the callback returns when it is shared.
  std::shared_ptr<GWObject> keepAlive = timer->weak_from_this().lock();
  // One-shot: the source is spent. Letting it go here is safe while it dispatches.
  timer->_timer = sd_event_source_disable_unref(timer->_timer);
  Callback callback = std::exchange(timer->callback_, nullptr);
  if (callback) {
    try {
      callback(*timer);
    } catch (const std::exception& e) {
      GW_LOG_CAUGHT(e);
    }
  }
  return 0;
}

void GWTimer::invalidate() {
  GW_LOG(2, "Enter");
  _timer = sd_event_source_disable_unref(_timer);
  callback_ = nullptr;
}

bool GWTimer::isValid() const { return _timer != nullptr; }

std::string GWTimer::description() const {
  return format("<GWTimer: %p> interval: %f, reason: %d", static_cast<const void*>(this), _interval,
                _reason);
}

}  // namespace gw
