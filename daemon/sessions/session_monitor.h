// Which users have login sessions, and whether any of them counts as use of the computer right now.
//
// A monitor lives on the manager's sd-event loop and is driven by it alone: it never polls and
// never starts a thread. The listener is called on that loop, once per uid, after that user's
// sessions changed (a session appeared or went away, became active, idle or locked, or the
// reverse); the listener may call sessionsOf() and users() and sees the new state. Not thread-safe.
// The loop (and the bus, for the logind monitor) must outlive the monitor; destroying the monitor
// removes every source and match it added, and no listener call follows.
//
// Two sources:
// - logind (org.freedesktop.login1 on the system bus): sessions of class "user" only. A session
// counts
//   when it is Active, not IdleHint and not LockedHint. The monitor follows
//   SessionNew/SessionRemoved and the sessions' PropertiesChanged, and starts over when logind
//   itself restarts. Its first picture arrives through the loop: right after construction no user
//   is known yet, and each user found is announced through the listener.
// - utmpx: USER_PROCESS records of a utmp file (default <root>/run/utmp), watched with inotify on
// its
//   folder. Any login counts. Records of names unknown to the password database are skipped. The
//   file is read at construction, so the first picture is there at once.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace gw::daemon {

struct UserSessions {
  bool loggedIn = false;  // at least one session
  bool counting = false;  // at least one session that counts as use now
  bool operator==(const UserSessions&) const = default;
};

class SessionMonitor {
 public:
  using Listener = std::function<void(uid_t uid)>;
  virtual ~SessionMonitor() = default;
  virtual UserSessions sessionsOf(uid_t uid) const = 0;
  virtual std::vector<uid_t> users() const = 0;  // every uid with at least one session, ascending
};

// logind when it runs (sd_booted() > 0 and the name org.freedesktop.login1 has an owner on bus),
// else utmpx below the system root. bus may be nullptr (no system bus): utmpx. The environment
// variable GATEWISE_SESSION_SOURCE ("logind" or "utmpx", read with secure_getenv) forces either,
// for tests and for machines where the check guesses wrong. Never nullptr.
std::unique_ptr<SessionMonitor> makeSessionMonitor(sd_event* loop, sd_bus* systemBus,
                                                   SessionMonitor::Listener listener);

// The logind monitor on systemBus (attached to loop here unless it already is). nullptr when the
// bus cannot be attached to loop or the matches cannot be added (logged).
std::unique_ptr<SessionMonitor> makeLogindMonitor(sd_event* loop, sd_bus* systemBus,
                                                  SessionMonitor::Listener listener);

// The utmpx monitor of utmpPath (empty: <root>/run/utmp). A missing file means nobody is logged in;
// a folder that cannot be watched is logged and the file is then read only once. Never nullptr.
std::unique_ptr<SessionMonitor> makeUtmpMonitor(sd_event* loop, std::string utmpPath,
                                                SessionMonitor::Listener listener);

}  // namespace gw::daemon
