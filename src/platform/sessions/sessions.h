// Login sessions of this host: who is logged in, and who is at the console.
//
// The list comes from systemd-logind (sd-login) when logind is running, else from the utmpx
// login records (USER_PROCESS entries) of <root>/var/run/utmp. Logind counts as running when
// systemd booted the machine (sd_booted) and org.freedesktop.login1 has an owner on the system bus
// ($DBUS_SYSTEM_BUS_ADDRESS honoured): a /run/systemd folder left in a container image proves
// nothing. "On console" means the active session of seat0 under
// logind; from utmpx it means a login on a local virtual terminal or X display ("console",
// "tty<N>", ":<N>") that came from no remote host.
//
// copySessionList reads the system afresh on every call and may be called from any thread.
// It returns nullopt when neither source can be read (no list at all). Nothing here throws.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace gw::sessions {

struct LoginSession {
  uid_t uid = 0;
  std::string userName;
  bool onConsole = false;
};

std::optional<std::vector<LoginSession>> copySessionList();

// The sessions recorded in a utmpx file (<root>/var/run/utmp when path is empty).
std::optional<std::vector<LoginSession>> sessionsFromUtmpx(const std::string& path = {});

// Whether logind serves this machine, as above. Asks the bus on every call.
bool logindIsRunning();
// Tests stand in for sd_booted(); nullopt asks it again.
void setBootedForTesting(std::optional<bool> booted);

// Tests point the utmpx fallback at a file of their own; empty restores the system's file.
// Also makes copySessionList skip logind, so a test sees only its own file.
void setUtmpxFileForTesting(const std::string& path);

}  // namespace gw::sessions
