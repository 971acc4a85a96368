// The session monitor under logind.
//
// Every session object logind lists is tracked by its object path. Its state is read with
// Properties.GetAll when it appears, and follows the session's PropertiesChanged signals (values
// applied as they come; invalidated properties read again). Signals are honoured only when they
// come from the connection that owns org.freedesktop.login1 right now (learnt from the bus driver),
// so another client of the system bus cannot make a user look logged out or idle. When logind
// restarts, the whole list is read again.
#include <gatewise/log.h>

#include <cstring>
#include <map>
#include <optional>
#include <set>

#include "daemon/sessions/logind_bus.h"
#include "daemon/sessions/logind_session.h"
#include "daemon/sessions/session_monitor.h"

namespace gw::daemon {
namespace {

using logind::SessionState;

constexpr std::size_t kMaxSessions = 4096;
constexpr const char* kBusDriver = "org.freedesktop.DBus";

// What the monitor subscribes to. The bus routes a signal only from the owner of the sender name
// given, but a broader match elsewhere on a shared connection can still let others' in (see
// fromLogind).
constexpr const char* kSessionSignalRule =
    "type='signal',sender='org.freedesktop.login1',path='/org/freedesktop/login1',"
    "interface='org.freedesktop.login1.Manager'";
constexpr const char* kPropertiesRule =
    "type='signal',sender='org.freedesktop.login1',interface='org.freedesktop.DBus.Properties',"
    "member='PropertiesChanged',path_namespace='/org/freedesktop/login1/session',"
    "arg0='org.freedesktop.login1.Session'";
constexpr const char* kOwnerRule =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.freedesktop.login1'";

struct TrackedSession {
  std::optional<SessionState> state;  // nullopt until its properties have been read
  bool operator==(const TrackedSession&) const = default;
  bool contributes() const { return state && state->userClass; }
};

class LogindMonitor final : public SessionMonitor {
 public:
  LogindMonitor(sd_bus* bus, Listener listener) : bus_(sd_bus_ref(bus)), listener_(listener) {}

  ~LogindMonitor() override {
    for (sd_bus_slot* slot : matches_) sd_bus_slot_unref(slot);
    sd_bus_unref(bus_);
  }
  LogindMonitor(const LogindMonitor&) = delete;
  LogindMonitor& operator=(const LogindMonitor&) = delete;

  // Subscribes, then asks who owns logind's name; the list is read once that is known. The bus
  // handles the calls in order, so the subscriptions are in force before the list is read.
  bool start() {
    const std::pair<const char*, sd_bus_message_handler_t> rules[] = {
        {kSessionSignalRule, onManagerSignal},
        {kPropertiesRule, onPropertiesChanged},
        {kOwnerRule, onOwnerChanged}};
    for (const auto& [rule, handler] : rules) {
      sd_bus_slot* slot = nullptr;
      if (int r = sd_bus_add_match_async(bus_, &slot, rule, handler, onMatchInstalled, this);
          r < 0) {
        GW_LOG(0, "*** cannot subscribe to logind's signals: %s", std::strerror(-r));
        return false;
      }
      matches_.push_back(slot);
    }
    return askForOwner();
  }

  UserSessions sessionsOf(uid_t uid) const override {
    UserSessions result;
    for (const auto& [path, session] : sessions_) {
      if (!session.contributes() || session.state->uid != uid) continue;
      result.loggedIn = true;
      result.counting = result.counting || session.state->counts();
    }
    return result;
  }

  std::vector<uid_t> users() const override {
    std::set<uid_t> uids;
    for (const auto& [path, session] : sessions_) {
      if (session.contributes()) uids.insert(session.state->uid);
    }
    return {uids.begin(), uids.end()};
  }

 private:
  static LogindMonitor* self(void* userdata) { return static_cast<LogindMonitor*>(userdata); }

  // A callback that does nothing once the monitor is gone (replies may outlive it).
  template <class Body>
  logind::ReplyHandler whileAlive(Body body) {
    return [token = std::weak_ptr<int>(alive_), this, body](sd_bus_message* reply) {
      if (!token.expired()) body(reply);
    };
  }

  bool call(const char* destination, const char* path, const char* interface, const char* member,
            logind::ReplyHandler done, const char* types = nullptr,
            const char* argument = nullptr) {
    sd_bus_message* message = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &message, destination, path, interface, member);
    if (r >= 0 && types) r = sd_bus_message_append(message, types, argument);
    if (r >= 0) r = logind::callAsync(bus_, message, std::move(done));
    sd_bus_message_unref(message);
    if (r < 0) GW_LOG(0, "*** cannot call %s.%s: %s", interface, member, std::strerror(-r));
    return r >= 0;
  }

  bool askForOwner() {
    return call(kBusDriver, "/org/freedesktop/DBus", kBusDriver, "GetNameOwner",
                whileAlive([this](sd_bus_message* reply) {
                  const char* owner = nullptr;
                  if (sd_bus_message_is_method_error(reply, nullptr) ||
                      sd_bus_message_read(reply, "s", &owner) < 0) {
                    GW_LOG(0, "*** %s has no owner on the system bus", logind::kService);
                    return;
                  }
                  if (owner_.empty()) ownerChanged(owner);
                }),
                "s", logind::kService);
  }

  void ownerChanged(std::string owner) {
    owner_ = std::move(owner);
    // While logind is away the sessions stay as they were; its successor's list replaces them.
    if (!owner_.empty()) readList();
  }

  bool fromLogind(sd_bus_message* message) const {
    const char* sender = sd_bus_message_get_sender(message);
    return sender && !owner_.empty() && owner_ == sender;
  }

  void readList() {
    std::uint64_t generation = ++listGeneration_;
    call(logind::kService, logind::kManagerPath, logind::kManagerInterface, "ListSessions",
         whileAlive([this, generation](sd_bus_message* reply) {
           if (generation != listGeneration_) return;  // a newer list is on its way
           std::vector<logind::ListedSession> listed;
           if (sd_bus_message_is_method_error(reply, nullptr) ||
               logind::readSessionList(reply, kMaxSessions, &listed) < 0) {
             GW_LOG(0, "*** cannot list logind's sessions: %s",
                    sd_bus_message_get_error(reply) ? sd_bus_message_get_error(reply)->message
                                                    : "malformed reply");
             return;
           }
           std::set<std::string> present;
           for (const auto& session : listed) present.insert(session.path);
           std::vector<std::string> gone;
           for (const auto& [path, session] : sessions_) {
             if (!present.contains(path)) gone.push_back(path);
           }
           for (const auto& path : gone) update(path, std::nullopt);
           for (const auto& path : present) track(path);
         }));
  }

  // Starts tracking a session (if new) and reads its properties.
  void track(const std::string& path) {
    if (!sessions_.contains(path)) {
      if (sessions_.size() >= kMaxSessions) {
        GW_LOG(0, "*** more than %zu sessions; %s is not followed", kMaxSessions, path);
        return;
      }
      sessions_.emplace(path, TrackedSession{});
    }
    readProperties(path);
  }

  void readProperties(const std::string& path) {
    call(logind::kService, path.c_str(), "org.freedesktop.DBus.Properties", "GetAll",
         whileAlive([this, path](sd_bus_message* reply) {
           auto it = sessions_.find(path);
           if (it == sessions_.end()) return;  // removed meanwhile
           if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
             // A session that vanished before it could be read is simply gone.
             GW_LOG(1, "cannot read session %s: %s", path, error->message ? error->message : "");
             if (!it->second.state) update(path, std::nullopt);
             return;
           }
           SessionState state;
           if (logind::readSessionProperties(reply, &state) < 0) {
             GW_LOG(0, "*** malformed properties of session %s", path);
             return;
           }
           update(path, TrackedSession{state});
         }),
         "s", logind::kSessionInterface);
  }

  // Replaces (or with nullopt removes) a session and tells the listener about every user whose
  // picture that changed.
  void update(const std::string& path, std::optional<TrackedSession> next) {
    auto it = sessions_.find(path);
    std::optional<TrackedSession> previous;
    if (it != sessions_.end()) previous = it->second;
    if (previous == next) return;
    if (next) {
      sessions_[path] = *next;
    } else if (it != sessions_.end()) {
      sessions_.erase(it);
    }
    std::set<uid_t> affected;
    if (previous && previous->contributes()) affected.insert(previous->state->uid);
    if (next && next->contributes()) affected.insert(next->state->uid);
    for (uid_t uid : affected) listener_(uid);
  }

  // Without this callback a refused subscription would close the whole connection.
  static int onMatchInstalled(sd_bus_message* reply, void*, sd_bus_error*) {
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
      GW_LOG(0, "*** the system bus refused a subscription to logind's signals: %s",
             error->message ? error->message : "");
    }
    return 0;
  }

  static int onManagerSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
    LogindMonitor* monitor = self(userdata);
    if (!monitor->fromLogind(message)) return 0;
    bool added = sd_bus_message_is_signal(message, logind::kManagerInterface, "SessionNew") > 0;
    bool removed =
        sd_bus_message_is_signal(message, logind::kManagerInterface, "SessionRemoved") > 0;
    if (!added && !removed) return 0;
    const char *id = nullptr, *path = nullptr;
    if (sd_bus_message_read(message, "so", &id, &path) < 0) return 0;
    if (added) {
      monitor->track(path);
    } else {
      monitor->update(path, std::nullopt);
    }
    return 0;
  }

  static int onPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    LogindMonitor* monitor = self(userdata);
    if (!monitor->fromLogind(message)) return 0;
    std::string path = sd_bus_message_get_path(message);
    auto it = monitor->sessions_.find(path);
    // Not followed, or its first reading is still on its way (and will see this change).
    if (it == monitor->sessions_.end() || !it->second.state) return 0;
    SessionState state = *it->second.state;
    const char* interface = nullptr;
    if (sd_bus_message_read(message, "s", &interface) < 0 ||
        logind::readSessionProperties(message, &state) < 0) {
      GW_LOG(0, "*** malformed PropertiesChanged of session %s", path);
      return 0;
    }
    bool reread = false;
    if (sd_bus_message_enter_container(message, 'a', "s") > 0) {
      const char* name = nullptr;
      while (sd_bus_message_read(message, "s", &name) > 0) {
        reread = reread || logind::isTrackedProperty(name);
      }
      sd_bus_message_exit_container(message);
    }
    monitor->update(path, TrackedSession{state});
    if (reread) monitor->readProperties(path);
    return 0;
  }

  static int onOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    LogindMonitor* monitor = self(userdata);
    const char* sender = sd_bus_message_get_sender(message);
    if (!sender || std::strcmp(sender, kBusDriver) != 0) return 0;
    const char *name = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    if (std::strcmp(name, logind::kService) == 0) monitor->ownerChanged(newOwner);
    return 0;
  }

  sd_bus* bus_;
  Listener listener_;
  std::vector<sd_bus_slot*> matches_;
  std::string owner_;  // unique name of logind's connection; empty while unknown or away
  std::uint64_t listGeneration_ = 0;
  std::map<std::string, TrackedSession> sessions_;  // by object path
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace

std::unique_ptr<SessionMonitor> makeLogindMonitor(sd_event* loop, sd_bus* systemBus,
                                                  SessionMonitor::Listener listener) {
  if (!systemBus || !logind::attachToLoop(systemBus, loop)) return nullptr;
  auto monitor = std::make_unique<LogindMonitor>(systemBus, std::move(listener));
  if (!monitor->start()) return nullptr;
  return monitor;
}

std::unique_ptr<SessionMonitor> makeSessionMonitor(sd_event* loop, sd_bus* systemBus,
                                                   SessionMonitor::Listener listener) {
  if (logind::logindRuns(systemBus)) {
    if (auto monitor = makeLogindMonitor(loop, systemBus, listener)) return monitor;
    GW_LOG(0, "*** cannot follow logind's sessions; reading utmp instead");
  }
  return makeUtmpMonitor(loop, {}, std::move(listener));
}

}  // namespace gw::daemon
