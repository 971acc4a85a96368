// Session tests' helpers: a stand-in logind on the private system bus, and driving an sd-event
// loop until something holds.
//
// LogindStandin owns the name org.freedesktop.login1 on $DBUS_SYSTEM_BUS_ADDRESS (a PrivateBus) and
// speaks the parts of logind's D-Bus interface that tutelad uses: the Manager object
// (/org/freedesktop/login1) with ListSessions, GetSession, TerminateUser, LockSession, LockSessions
// and the signals SessionNew/SessionRemoved; one Session object per session below
// /org/freedesktop/login1/session (path encoded from the id as logind does) with the properties Id,
// User, Name, Active, IdleHint, LockedHint, Class, Type, and PropertiesChanged when a test changes
// one. TerminateUser records the uid and closes the user's sessions, as logind does; an uid without
// sessions gets logind's NoSuchUser error. The stand-in serves on the loop it is given, so a test
// drives it and the code under test on one thread. Destroying it releases the name.
//
// runLoopUntil runs the loop one event at a time until the condition holds or the time limit
// passes; it never sleeps for a fixed time, so a test is as fast as the events it waits for.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace gwtest {

// True as soon as condition() holds (checked before each wait); false after timeout.
bool runLoopUntil(sd_event* loop, const std::function<bool()>& condition,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Sets an environment variable for one scope and restores the previous state afterwards.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const char* value);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

class LogindStandin {
 public:
  struct Session {
    std::string id;
    uid_t uid = 0;
    std::string userName = "someone";
    std::string sessionClass = "user";
    std::string type = "x11";
    bool active = true;
    bool idle = false;
    bool locked = false;
  };
  // How a change is announced: with its new value, or as an invalidated property to be read again.
  enum class Announce { Value, Invalidation };

  // Throws std::runtime_error when it cannot connect or take the name.
  explicit LogindStandin(sd_event* loop);
  ~LogindStandin();
  LogindStandin(const LogindStandin&) = delete;
  LogindStandin& operator=(const LogindStandin&) = delete;

  // Adds a session and emits SessionNew; returns its object path.
  std::string addSession(Session session);
  // Removes a session and emits SessionRemoved.
  void removeSession(const std::string& id);
  void setActive(const std::string& id, bool value, Announce how = Announce::Value);
  void setIdleHint(const std::string& id, bool value, Announce how = Announce::Value);
  void setLockedHint(const std::string& id, bool value, Announce how = Announce::Value);

  // What the Manager was asked to do, in order.
  const std::vector<uid_t>& terminatedUsers() const { return terminatedUsers_; }
  const std::vector<std::string>& lockedSessions() const { return lockedSessions_; }
  int lockAllCalls() const { return lockAllCalls_; }

  static std::string pathOf(const std::string& id);

 private:
  friend struct LogindStandinVtables;
  void setFlag(const std::string& id, const char* property, bool Session::*field, bool value,
               Announce how);
  void emitSessionSignal(const char* member, const Session& session);

  static int listSessions(sd_bus_message*, void*, sd_bus_error*);
  static int getSession(sd_bus_message*, void*, sd_bus_error*);
  static int terminateUser(sd_bus_message*, void*, sd_bus_error*);
  static int lockSession(sd_bus_message*, void*, sd_bus_error*);
  static int lockSessions(sd_bus_message*, void*, sd_bus_error*);
  static int findSession(sd_bus*, const char* path, const char*, void* userdata, void** found,
                         sd_bus_error*);
  static int getProperty(sd_bus*, const char*, const char*, const char* property,
                         sd_bus_message* reply, void* userdata, sd_bus_error*);

  sd_bus* bus_ = nullptr;
  sd_bus_slot* managerSlot_ = nullptr;
  sd_bus_slot* sessionSlot_ = nullptr;
  std::map<std::string, Session> sessions_;  // by object path; nodes stay put for the vtable
  std::vector<uid_t> terminatedUsers_;
  std::vector<std::string> lockedSessions_;
  int lockAllCalls_ = 0;
};

}  // namespace gwtest
