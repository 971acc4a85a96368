// logind's session records as they travel on the bus: the entries of Manager.ListSessions and the
// properties of an org.freedesktop.login1.Session object (GetAll, PropertiesChanged).
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <string>
#include <vector>

namespace gw::daemon::logind {

// One entry of ListSessions' a(susso).
struct ListedSession {
  std::string id;
  uid_t uid = 0;
  std::string path;
};

// The properties of a session that decide whether it counts as use.
struct SessionState {
  uid_t uid = 0;
  bool userClass = false;  // Class "user": a person's login, not a greeter or a background job
  bool active = false;
  bool idle = false;
  bool locked = false;
  bool operator==(const SessionState&) const = default;

  bool counts() const { return userClass && active && !idle && !locked; }
};

// Reads a ListSessions reply. At most maxCount entries are kept. Returns 0 or -errno.
int readSessionList(sd_bus_message* reply, std::size_t maxCount, std::vector<ListedSession>* out);

// Reads an a{sv} of session properties into *state, leaving the fields whose property is absent as
// they were; skips every other property. Returns 0 or -errno.
int readSessionProperties(sd_bus_message* message, SessionState* state);

// Whether a property name is one readSessionProperties reads.
bool isTrackedProperty(const char* name);

}  // namespace gw::daemon::logind
