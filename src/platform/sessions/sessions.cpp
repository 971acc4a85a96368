#include "platform/sessions/sessions.h"

#include <pwd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-login.h>
#include <unistd.h>
#include <utmpx.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/fs/root.h"
#include "platform/notify/system_bus.h"

namespace gw::sessions {
namespace {

std::mutex gUtmpxMutex;  // the utmpx reading functions keep one process-wide cursor
std::string gTestUtmpxFile;
std::atomic<int> gBootedForTesting{-1};  // -1: ask sd_booted()

constexpr const char* kLogindBusName = "org.freedesktop.login1";

bool bootedWithSystemd() {
  int forced = gBootedForTesting.load();
  return forced >= 0 ? forced == 1 : sd_booted() > 0;
}

// Whether name has an owner on the system bus; false when the bus cannot be asked.
bool systemBusNameHasOwner(const char* name) {
  std::string error;
  notify::BusPtr bus = notify::openSystemBus(&error);
  if (!bus) return false;
  sd_bus_error callError = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  int owned = 0;
  int r = sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus", "NameHasOwner", &callError, &reply, "s", name);
  if (r >= 0) r = sd_bus_message_read(reply, "b", &owned);
  sd_bus_message_unref(reply);
  sd_bus_error_free(&callError);
  return r >= 0 && owned;
}

std::string nameForUID(uid_t uid) {
  struct passwd entry, *found = nullptr;
  char buffer[4096];
  if (::getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) != 0 || !found || !found->pw_name) {
    return {};
  }
  return found->pw_name;
}

std::optional<uid_t> uidForName(const std::string& name) {
  struct passwd entry, *found = nullptr;
  char buffer[4096];
  if (::getpwnam_r(name.c_str(), &entry, buffer, sizeof buffer, &found) != 0 || !found) {
    return std::nullopt;
  }
  return found->pw_uid;
}

// A fixed-size, possibly unterminated utmpx text field.
template <std::size_t N>
std::string field(const char (&text)[N]) {
  return std::string(text, strnlen(text, N));
}

bool isLocalConsoleLine(const std::string& line, const std::string& host) {
  if (!host.empty() && host.front() != ':') return false;  // a remote login
  if (line == "console") return true;
  auto allDigitsAfter = [&](std::size_t prefix) {
    return line.size() > prefix &&
           line.find_first_not_of("0123456789", prefix) == std::string::npos;
  };
  return (line.starts_with("tty") && allDigitsAfter(3)) ||
         (line.starts_with(":") && allDigitsAfter(1));
}

std::optional<std::vector<LoginSession>> sessionsFromLogind() {
  char** ids = nullptr;
  int count = sd_get_sessions(&ids);
  if (count < 0) return std::nullopt;
  std::vector<LoginSession> sessions;
  char* activeOnSeat0 = nullptr;
  sd_seat_get_active("seat0", &activeOnSeat0, nullptr);
  for (int i = 0; i < count; ++i) {
    LoginSession session;
    if (sd_session_get_uid(ids[i], &session.uid) >= 0) {
      session.userName = nameForUID(session.uid);
      session.onConsole = activeOnSeat0 && std::strcmp(activeOnSeat0, ids[i]) == 0;
      sessions.push_back(std::move(session));
    }
    std::free(ids[i]);
  }
  std::free(ids);
  std::free(activeOnSeat0);
  return sessions;
}

}  // namespace

std::optional<std::vector<LoginSession>> sessionsFromUtmpx(const std::string& path) {
  std::lock_guard lock(gUtmpxMutex);
  std::string file = path.empty() ? fs::rootedPath(_PATH_UTMPX) : path;
  if (::access(file.c_str(), R_OK) != 0) return std::nullopt;
  if (::utmpxname(file.c_str()) != 0) return std::nullopt;
  std::vector<LoginSession> sessions;
  ::setutxent();
  while (const utmpx* entry = ::getutxent()) {
    if (entry->ut_type != USER_PROCESS) continue;
    LoginSession session;
    session.userName = field(entry->ut_user);
    if (session.userName.empty()) continue;
    std::optional<uid_t> uid = uidForName(session.userName);
    if (!uid) continue;  // a record of a user that no longer exists
    session.uid = *uid;
    session.onConsole = isLocalConsoleLine(field(entry->ut_line), field(entry->ut_host));
    sessions.push_back(std::move(session));
  }
  ::endutxent();
  ::utmpxname(_PATH_UTMPX);
  return sessions;
}

bool logindIsRunning() {
  // A container image may carry /run/systemd with nobody behind it: only a logind that systemd
  // booted and that answers on the bus counts.
  return bootedWithSystemd() && systemBusNameHasOwner(kLogindBusName);
}

void setBootedForTesting(std::optional<bool> booted) {
  gBootedForTesting = booted ? int(*booted) : -1;
}

void setUtmpxFileForTesting(const std::string& path) {
  std::lock_guard lock(gUtmpxMutex);
  gTestUtmpxFile = path;
}

std::optional<std::vector<LoginSession>> copySessionList() {
  std::string testFile;
  {
    std::lock_guard lock(gUtmpxMutex);
    testFile = gTestUtmpxFile;
  }
  if (testFile.empty() && logindIsRunning()) {
    if (auto sessions = sessionsFromLogind()) return sessions;
  }
  return sessionsFromUtmpx(testFile);
}

}  // namespace gw::sessions
