// Login sessions of this host: who is logged in, and who is at the console.
//
// The list comes from systemd-logind (sd-login) when logind is running, else from the utmpx
// login records (USER_PROCESS entries). "On console" means the active session of seat0 under
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

// The sessions recorded in a utmpx file (the system's when path is empty).
std::optional<std::vector<LoginSession>> sessionsFromUtmpx(const std::string& path = {});

// Tests point the utmpx fallback at a file of their own; empty restores the system's file.
// Also makes copySessionList skip logind, so a test sees only its own file.
void setUtmpxFileForTesting(const std::string& path);

}  // namespace gw::sessions
