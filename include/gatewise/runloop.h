// The run loop of a thread: its default sd-event loop.
//
// The library starts no thread and assumes no main loop. Work that waits for the outside world
// (notification callbacks, timers) is attached to the default sd-event loop of the thread that
// asked for it, and happens when the host program runs that loop: with sd_event_loop/sd_event_run
// on currentRunLoop(), or with runRunLoopOnce(). Each thread has its own loop; a loop must only be
// run on its own thread.
#pragma once

#include <gatewise/export.h>

#include <chrono>

typedef struct sd_event sd_event;

namespace gw::runloop {

// The calling thread's default event loop, created on first use and kept for the thread's life.
// The pointer is borrowed: do not unref it. nullptr only when sd-event cannot allocate one.
GW_EXPORT sd_event* currentRunLoop();

// Waits up to timeout for one round of events and dispatches them. Returns the number of events
// dispatched (0 on time-out) or a negative errno.
GW_EXPORT int runRunLoopOnce(std::chrono::microseconds timeout);

}  // namespace gw::runloop
