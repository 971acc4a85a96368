// What the daemon does to a user's sessions when their computer time ends.
#pragma once

#include <gatewise/plist.h>
#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <memory>

namespace gw::daemon {

// Host preference "endAction": "logout" (default), "lock", "none".
enum class EndAction { Logout, Lock, None };
EndAction endActionFromPreference(const plist::Value& value);  // anything unknown: Logout (logged)

class SessionActions {
 public:
  virtual ~SessionActions() = default;
  // Ends every session of uid (logind TerminateUser; without logind SIGTERM to the user's
  // processes, SIGKILL to those left after the grace period, armed on the loop). False when it
  // could not (logged).
  virtual bool logout(uid_t uid) = 0;
  // Locks every session of uid (logind LockSessions of the user's sessions / LockSession each).
  virtual bool lock(uid_t uid) = 0;
};

// systemBus nullptr or logind absent: the signal path. grace: the could-not-quit grace (60 s).
std::unique_ptr<SessionActions> makeSessionActions(sd_event* loop, sd_bus* systemBus,
                                                   std::chrono::seconds grace);

}  // namespace gw::daemon
