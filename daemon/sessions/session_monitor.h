// Which users have sessions and whether any of them counts as use right now. Lives on the manager's
// sd-event loop; the listener is called on that loop after a user's sessions changed (appeared,
// went away, became active/idle/locked or the reverse). Not thread-safe.
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
  bool loggedIn = false;
  bool counting = false;
};

class SessionMonitor {
 public:
  using Listener = std::function<void(uid_t uid)>;
  virtual ~SessionMonitor() = default;
  virtual UserSessions sessionsOf(uid_t uid) const = 0;
  virtual std::vector<uid_t> users() const = 0;  // every uid with at least one session
};

// logind when it runs (sd_booted() and the bus name org.freedesktop.login1 has an owner on bus),
// else utmpx below the system root (<root>/run/utmp unless given). bus may be nullptr (no system
// bus).
std::unique_ptr<SessionMonitor> makeSessionMonitor(sd_event* loop, sd_bus* systemBus,
                                                   SessionMonitor::Listener listener);
std::unique_ptr<SessionMonitor> makeLogindMonitor(sd_event* loop, sd_bus* systemBus,
                                                  SessionMonitor::Listener listener);
std::unique_ptr<SessionMonitor> makeUtmpMonitor(sd_event* loop, std::string utmpPath,
                                                SessionMonitor::Listener listener);

}  // namespace gw::daemon
