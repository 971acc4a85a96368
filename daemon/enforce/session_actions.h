// What tutelad does to a user's sessions when their computer time ends: log them out or lock them.
//
// Two implementations, chosen by makeSessionActions:
// - logind: Manager.TerminateUser(uid) to log out; to lock, the user's sessions are listed
//   (Manager.ListSessions) and each is locked with Manager.LockSession(id) (Manager.LockSessions
//   would lock every user's). The calls are asynchronous on the loop; a call that fails or gets no
//   answer within a few seconds is logged when its reply arrives.
// - signals (no logind): SIGTERM to every process whose real uid is the user's, then, after the
//   grace period, SIGKILL to every such process still there, armed as a timer on the loop.
//   Processes are signalled through pidfds, so a pid reused in between is never hit. Locking is not
//   possible without logind: logged, false.
// Both refuse uid 0 (logged, false): root's sessions are never ended or locked.
//
// Lives on the manager's loop like the session monitor; not thread-safe. The loop and the bus must
// outlive the object; destroying it drops pending timers and replies (a SIGKILL not yet sent is not
// sent).
#pragma once

#include <gatewise/plist.h>
#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <memory>

namespace gw::daemon {

// The host preference "endAction" (domain "com.morvane.Gatewise"): "logout" (also the default when
// absent), "lock" or "none".
enum class EndAction { Logout, Lock, None };

// Absent (a null value): Logout. Anything else that is not one of the three strings: Logout,
// logged.
EndAction endActionFromPreference(const plist::Value& value);

class SessionActions {
 public:
  virtual ~SessionActions() = default;
  // Ends every session of uid (logind TerminateUser; without logind SIGTERM to the user's
  // processes, SIGKILL to those left after the grace period, armed on the loop). True when the
  // request went out; false when it could not (logged).
  virtual bool logout(uid_t uid) = 0;
  // Locks every session of uid (logind LockSession of each of the user's sessions). False without
  // logind, and when the request could not go out (logged).
  virtual bool lock(uid_t uid) = 0;
};

// systemBus nullptr or logind absent (same test as makeSessionMonitor, GATEWISE_SESSION_SOURCE
// included): the signal path. grace: the could-not-quit grace (60 s). Never nullptr.
std::unique_ptr<SessionActions> makeSessionActions(sd_event* loop, sd_bus* systemBus,
                                                   std::chrono::seconds grace);

// The two paths directly (tests, and callers that know which they want). The logind one attaches
// systemBus to loop unless it already is; nullptr when it cannot (logged).
std::unique_ptr<SessionActions> makeLogindSessionActions(sd_event* loop, sd_bus* systemBus);
std::unique_ptr<SessionActions> makeSignalSessionActions(sd_event* loop,
                                                         std::chrono::milliseconds grace);

}  // namespace gw::daemon
