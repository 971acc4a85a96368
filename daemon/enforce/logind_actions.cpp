// End actions through logind's Manager on the system bus.
#include <gatewise/log.h>

#include <cstring>

#include "daemon/enforce/session_actions.h"
#include "daemon/sessions/logind_bus.h"
#include "daemon/sessions/logind_session.h"

namespace gw::daemon {
namespace {

constexpr std::size_t kMaxListedSessions = 4096;

const char* errorText(sd_bus_message* reply) {
  const sd_bus_error* error = sd_bus_message_get_error(reply);
  return error && error->message ? error->message : "unknown error";
}

class LogindActions final : public SessionActions {
 public:
  explicit LogindActions(sd_bus* bus) : bus_(sd_bus_ref(bus)) {}
  ~LogindActions() override { sd_bus_unref(bus_); }
  LogindActions(const LogindActions&) = delete;
  LogindActions& operator=(const LogindActions&) = delete;

  bool logout(uid_t uid) override {
    if (uid == 0) {
      GW_LOG(0, "*** refusing to end the sessions of root");
      return false;
    }
    GW_LOG(1, "ending the sessions of uid %u", uid);
    return callManager("TerminateUser", "u", std::uint32_t(uid), [uid](sd_bus_message* reply) {
      if (sd_bus_message_is_method_error(reply, nullptr)) {
        GW_LOG(0, "*** logind could not end the sessions of uid %u: %s", uid, errorText(reply));
      }
    });
  }

  bool lock(uid_t uid) override {
    if (uid == 0) {
      GW_LOG(0, "*** refusing to lock the sessions of root");
      return false;
    }
    GW_LOG(1, "locking the sessions of uid %u", uid);
    // The list's reply may come after this object is gone; the weak token says so.
    return callManager("ListSessions", nullptr, 0,
                       [this, uid, token = std::weak_ptr<int>(alive_)](sd_bus_message* reply) {
                         if (!token.expired()) lockListedSessions(uid, reply);
                       });
  }

 private:
  template <class Argument>
  bool callManager(const char* member, const char* types, Argument argument,
                   logind::ReplyHandler done) {
    sd_bus_message* message = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &message, logind::kService, logind::kManagerPath,
                                           logind::kManagerInterface, member);
    if (r >= 0 && types) r = sd_bus_message_append(message, types, argument);
    if (r >= 0) r = logind::callAsync(bus_, message, std::move(done));
    sd_bus_message_unref(message);
    if (r < 0) GW_LOG(0, "*** cannot call logind's %s: %s", member, std::strerror(-r));
    return r >= 0;
  }

  void lockListedSessions(uid_t uid, sd_bus_message* reply) {
    std::vector<logind::ListedSession> sessions;
    if (sd_bus_message_is_method_error(reply, nullptr)) {
      GW_LOG(0, "*** cannot list logind's sessions: %s", errorText(reply));
      return;
    }
    if (logind::readSessionList(reply, kMaxListedSessions, &sessions) < 0) {
      GW_LOG(0, "*** malformed session list from logind");
      return;
    }
    std::size_t locked = 0;
    for (const auto& session : sessions) {
      if (session.uid != uid) continue;
      ++locked;
      callManager("LockSession", "s", session.id.c_str(),
                  [uid, id = session.id](sd_bus_message* lockReply) {
                    if (sd_bus_message_is_method_error(lockReply, nullptr)) {
                      GW_LOG(0, "*** logind could not lock session %s of uid %u: %s", id, uid,
                             errorText(lockReply));
                    }
                  });
    }
    if (locked == 0) GW_LOG(1, "uid %u has no session to lock", uid);
  }

  sd_bus* bus_;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace

std::unique_ptr<SessionActions> makeLogindSessionActions(sd_event* loop, sd_bus* systemBus) {
  if (!systemBus || !logind::attachToLoop(systemBus, loop)) return nullptr;
  return std::make_unique<LogindActions>(systemBus);
}

std::unique_ptr<SessionActions> makeSessionActions(sd_event* loop, sd_bus* systemBus,
                                                   std::chrono::seconds grace) {
  if (logind::logindRuns(systemBus)) {
    if (auto actions = makeLogindSessionActions(loop, systemBus)) return actions;
    GW_LOG(0, "*** cannot reach logind; ending sessions with signals instead");
  }
  return makeSignalSessionActions(loop, grace);
}

}  // namespace gw::daemon
