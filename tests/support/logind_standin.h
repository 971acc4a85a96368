// Session tests' helpers: driving an sd-event loop until something holds, and a stand-in logind.
//
// runLoopUntil runs the loop one event at a time until the condition holds or the time limit
// passes; it never sleeps for a fixed time, so a test is as fast as the events it waits for.
#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>

namespace gwtest {

// True as soon as condition() holds (checked before each wait); false after timeout.
bool runLoopUntil(sd_event* loop, const std::function<bool()>& condition,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace gwtest
