// What the session monitor and the end actions share about logind on the system bus: its names,
// the test for whether it runs, attaching a connection to the manager's loop, and asynchronous
// method calls whose replies come back through the loop.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <functional>

namespace gw::daemon::logind {

inline constexpr const char* kService = "org.freedesktop.login1";
inline constexpr const char* kManagerPath = "/org/freedesktop/login1";
inline constexpr const char* kManagerInterface = "org.freedesktop.login1.Manager";
inline constexpr const char* kSessionInterface = "org.freedesktop.login1.Session";
inline constexpr const char* kSessionPathPrefix = "/org/freedesktop/login1/session";

// How long an asynchronous call to logind may stay unanswered.
inline constexpr std::chrono::seconds kCallTimeout{5};

// Whether the sessions should come from logind: GATEWISE_SESSION_SOURCE "logind"/"utmpx" when set;
// else bus non-null, sd_booted() > 0 and the name org.freedesktop.login1 owned on bus. (A stale
// /run/systemd folder proves nothing, so the files logind leaves behind are not consulted.)
bool logindRuns(sd_bus* bus);

// Attaches bus to loop unless it already is (and leaves it attached: the bus may serve others on
// the loop). False (logged) when it is attached to another loop or cannot be attached.
bool attachToLoop(sd_bus* bus, sd_event* loop);

// Sends a method call whose reply (or error, or time-out) reaches done on the loop. done gets the
// reply message, an error message included (check sd_bus_message_is_method_error). The call is
// owned by the bus: if the bus goes away first, done is dropped without being called, so done must
// not outlive what it captures; callers capture a weak token of their own. Returns 0 or -errno.
using ReplyHandler = std::function<void(sd_bus_message* reply)>;
int callAsync(sd_bus* bus, sd_bus_message* call, ReplyHandler done);

}  // namespace gw::daemon::logind
