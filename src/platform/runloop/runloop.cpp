#include <gatewise/runloop.h>
#include <systemd/sd-event.h>

namespace gw::runloop {
namespace {

// Owns the thread's reference to its default loop.
class ThreadLoop {
 public:
  ThreadLoop() {
    if (sd_event_default(&event_) < 0) event_ = nullptr;
  }
  ~ThreadLoop() { sd_event_unref(event_); }
  ThreadLoop(const ThreadLoop&) = delete;
  ThreadLoop& operator=(const ThreadLoop&) = delete;
  sd_event* get() const { return event_; }

 private:
  sd_event* event_ = nullptr;
};

}  // namespace

sd_event* currentRunLoop() {
  thread_local ThreadLoop loop;
  return loop.get();
}

int runRunLoopOnce(std::chrono::microseconds timeout) {
  sd_event* event = currentRunLoop();
  if (!event) return -12;  // ENOMEM
  return sd_event_run(event, timeout.count() < 0 ? 0 : std::uint64_t(timeout.count()));
}

}  // namespace gw::runloop
