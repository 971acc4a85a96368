#include "support/logind_standin.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "platform/notify/system_bus.h"

namespace gwtest {
namespace {

constexpr const char* kService = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManagerInterface = "org.freedesktop.login1.Manager";
constexpr const char* kSessionInterface = "org.freedesktop.login1.Session";
constexpr const char* kSessionPrefix = "/org/freedesktop/login1/session";

LogindStandin* standin(void* userdata) { return static_cast<LogindStandin*>(userdata); }

}  // namespace

bool runLoopUntil(sd_event* loop, const std::function<bool()>& condition,
                  std::chrono::milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeout;
  while (!condition()) {
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    if (sd_event_run(loop, std::uint64_t(left.count())) < 0) return false;
  }
  return true;
}

namespace {

constexpr auto kChanges = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
constexpr auto kConst = SD_BUS_VTABLE_PROPERTY_CONST;

}  // namespace

ScopedEnvironment::ScopedEnvironment(const char* name, const char* value) : name_(name) {
  if (const char* old = std::getenv(name)) previous_ = old;
  ::setenv(name, value, 1);
}

ScopedEnvironment::~ScopedEnvironment() {
  if (previous_) {
    ::setenv(name_.c_str(), previous_->c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

// The vtables name the stand-in's private handlers, so they live in a friend.
struct LogindStandinVtables {
  static const sd_bus_vtable* manager() {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("ListSessions", "", "a(susso)", LogindStandin::listSessions, 0),
        SD_BUS_METHOD("GetSession", "s", "o", LogindStandin::getSession, 0),
        SD_BUS_METHOD("TerminateUser", "u", "", LogindStandin::terminateUser, 0),
        SD_BUS_METHOD("LockSession", "s", "", LogindStandin::lockSession, 0),
        SD_BUS_METHOD("LockSessions", "", "", LogindStandin::lockSessions, 0),
        SD_BUS_SIGNAL("SessionNew", "so", 0),
        SD_BUS_SIGNAL("SessionRemoved", "so", 0),
        SD_BUS_VTABLE_END};
    return table;
  }
  static const sd_bus_vtable* session() {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("Id", "s", LogindStandin::getProperty, 0, kConst),
        SD_BUS_PROPERTY("User", "(uo)", LogindStandin::getProperty, 0, kConst),
        SD_BUS_PROPERTY("Name", "s", LogindStandin::getProperty, 0, kConst),
        SD_BUS_PROPERTY("Class", "s", LogindStandin::getProperty, 0, kConst),
        SD_BUS_PROPERTY("Type", "s", LogindStandin::getProperty, 0, kChanges),
        SD_BUS_PROPERTY("Active", "b", LogindStandin::getProperty, 0, kChanges),
        SD_BUS_PROPERTY("IdleHint", "b", LogindStandin::getProperty, 0, kChanges),
        SD_BUS_PROPERTY("LockedHint", "b", LogindStandin::getProperty, 0, kChanges),
        SD_BUS_VTABLE_END};
    return table;
  }
};

LogindStandin::LogindStandin(sd_event* loop) {
  std::string error;
  gw::notify::BusPtr bus = gw::notify::openSystemBus(&error);
  if (!bus) throw std::runtime_error("stand-in logind: " + error);
  if (sd_bus_add_object_vtable(bus.get(), &managerSlot_, kManagerPath, kManagerInterface,
                               LogindStandinVtables::manager(), this) < 0 ||
      sd_bus_add_fallback_vtable(bus.get(), &sessionSlot_, kSessionPrefix, kSessionInterface,
                                 LogindStandinVtables::session(), findSession, this) < 0 ||
      sd_bus_request_name(bus.get(), kService, 0) < 0 ||
      sd_bus_attach_event(bus.get(), loop, SD_EVENT_PRIORITY_NORMAL) < 0) {
    sd_bus_slot_unref(managerSlot_);
    sd_bus_slot_unref(sessionSlot_);
    throw std::runtime_error("stand-in logind: cannot serve org.freedesktop.login1");
  }
  bus_ = bus.release();
}

LogindStandin::~LogindStandin() {
  sd_bus_slot_unref(managerSlot_);
  sd_bus_slot_unref(sessionSlot_);
  sd_bus_flush_close_unref(bus_);
}

std::string LogindStandin::pathOf(const std::string& id) {
  char* path = nullptr;
  if (sd_bus_path_encode(kSessionPrefix, id.c_str(), &path) < 0) throw std::bad_alloc();
  std::string result = path;
  free(path);
  return result;
}

std::string LogindStandin::addSession(Session session) {
  std::string path = pathOf(session.id);
  const Session& stored = sessions_[path] = std::move(session);
  emitSessionSignal("SessionNew", stored);
  return path;
}

void LogindStandin::removeSession(const std::string& id) {
  auto it = sessions_.find(pathOf(id));
  if (it == sessions_.end()) return;
  Session gone = it->second;
  sessions_.erase(it);
  emitSessionSignal("SessionRemoved", gone);
}

void LogindStandin::setActive(const std::string& id, bool value, Announce how) {
  setFlag(id, "Active", &Session::active, value, how);
}
void LogindStandin::setIdleHint(const std::string& id, bool value, Announce how) {
  setFlag(id, "IdleHint", &Session::idle, value, how);
}
void LogindStandin::setLockedHint(const std::string& id, bool value, Announce how) {
  setFlag(id, "LockedHint", &Session::locked, value, how);
}

void LogindStandin::setFlag(const std::string& id, const char* property, bool Session::*field,
                            bool value, Announce how) {
  std::string path = pathOf(id);
  sessions_.at(path).*field = value;
  // org.freedesktop.DBus.Properties.PropertiesChanged(s interface, a{sv} changed, as invalidated)
  sd_bus_message* signal = nullptr;
  int r = sd_bus_message_new_signal(bus_, &signal, path.c_str(), "org.freedesktop.DBus.Properties",
                                    "PropertiesChanged");
  if (r >= 0) r = sd_bus_message_append(signal, "s", kSessionInterface);
  if (how == Announce::Value) {
    if (r >= 0) r = sd_bus_message_append(signal, "a{sv}", 1, property, "b", int(value));
    if (r >= 0) r = sd_bus_message_append(signal, "as", 0);
  } else {
    if (r >= 0) r = sd_bus_message_append(signal, "a{sv}", 0);
    if (r >= 0) r = sd_bus_message_append(signal, "as", 1, property);
  }
  if (r >= 0) r = sd_bus_send(bus_, signal, nullptr);
  sd_bus_message_unref(signal);
  if (r < 0) throw std::runtime_error("stand-in logind: cannot emit PropertiesChanged");
}

void LogindStandin::emitSessionSignal(const char* member, const Session& session) {
  if (sd_bus_emit_signal(bus_, kManagerPath, kManagerInterface, member, "so", session.id.c_str(),
                         pathOf(session.id).c_str()) < 0) {
    throw std::runtime_error(std::string("stand-in logind: cannot emit ") + member);
  }
}

int LogindStandin::listSessions(sd_bus_message* call, void* userdata, sd_bus_error*) {
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_return(call, &reply);
  if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "(susso)");
  for (const auto& [path, session] : standin(userdata)->sessions_) {
    if (r >= 0) {
      r = sd_bus_message_append(reply, "(susso)", session.id.c_str(), std::uint32_t(session.uid),
                                session.userName.c_str(), "seat0", path.c_str());
    }
  }
  if (r >= 0) r = sd_bus_message_close_container(reply);
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r;
}

int LogindStandin::getSession(sd_bus_message* call, void* userdata, sd_bus_error* error) {
  const char* id = nullptr;
  if (int r = sd_bus_message_read(call, "s", &id); r < 0) return r;
  std::string path = pathOf(id);
  if (!standin(userdata)->sessions_.contains(path)) {
    return sd_bus_error_setf(error, "org.freedesktop.login1.NoSuchSession", "No session '%s' known",
                             id);
  }
  return sd_bus_reply_method_return(call, "o", path.c_str());
}

int LogindStandin::terminateUser(sd_bus_message* call, void* userdata, sd_bus_error* error) {
  std::uint32_t uid = 0;
  if (int r = sd_bus_message_read(call, "u", &uid); r < 0) return r;
  LogindStandin* self = standin(userdata);
  self->terminatedUsers_.push_back(uid);
  std::vector<std::string> ids;
  for (const auto& [path, session] : self->sessions_) {
    if (session.uid == uid) ids.push_back(session.id);
  }
  if (ids.empty()) {
    return sd_bus_error_setf(error, "org.freedesktop.login1.NoSuchUser",
                             "User %u not known or "
                             "not logged in",
                             uid);
  }
  for (const auto& id : ids) self->removeSession(id);
  return sd_bus_reply_method_return(call, "");
}

int LogindStandin::lockSession(sd_bus_message* call, void* userdata, sd_bus_error* error) {
  const char* id = nullptr;
  if (int r = sd_bus_message_read(call, "s", &id); r < 0) return r;
  LogindStandin* self = standin(userdata);
  if (!self->sessions_.contains(pathOf(id))) {
    return sd_bus_error_setf(error, "org.freedesktop.login1.NoSuchSession", "No session '%s' known",
                             id);
  }
  self->lockedSessions_.push_back(id);
  return sd_bus_reply_method_return(call, "");
}

int LogindStandin::lockSessions(sd_bus_message* call, void* userdata, sd_bus_error*) {
  ++standin(userdata)->lockAllCalls_;
  return sd_bus_reply_method_return(call, "");
}

int LogindStandin::findSession(sd_bus*, const char* path, const char*, void* userdata, void** found,
                               sd_bus_error*) {
  auto& sessions = standin(userdata)->sessions_;
  auto it = sessions.find(path);
  if (it == sessions.end()) return 0;
  *found = &it->second;
  return 1;
}

int LogindStandin::getProperty(sd_bus*, const char*, const char*, const char* property,
                               sd_bus_message* reply, void* userdata, sd_bus_error*) {
  const auto& session = *static_cast<const Session*>(userdata);
  std::string_view name = property;
  if (name == "Id") return sd_bus_message_append(reply, "s", session.id.c_str());
  if (name == "Name") return sd_bus_message_append(reply, "s", session.userName.c_str());
  if (name == "Class") return sd_bus_message_append(reply, "s", session.sessionClass.c_str());
  if (name == "Type") return sd_bus_message_append(reply, "s", session.type.c_str());
  if (name == "Active") return sd_bus_message_append(reply, "b", int(session.active));
  if (name == "IdleHint") return sd_bus_message_append(reply, "b", int(session.idle));
  if (name == "LockedHint") return sd_bus_message_append(reply, "b", int(session.locked));
  if (name == "User") {
    char userPath[64];
    std::snprintf(userPath, sizeof userPath, "/org/freedesktop/login1/user/_%u",
                  unsigned(session.uid));
    return sd_bus_message_append(reply, "(uo)", std::uint32_t(session.uid), userPath);
  }
  return -ENOENT;
}

}  // namespace gwtest
