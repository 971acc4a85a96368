// The daemon's events subsystem: the store, the proxies that clients set up to query it, the
// retention of old events, and the login, logout and counted-session events read from the session
// monitor's changes.
//
// A proxy belongs to one calling process (SO_PEERCRED uid and pid) and one user name, and is made
// by _GWMIGCreateMOCProxyForUser only for a caller that may read that user's events
// (event_access.h) and whose authorization bytes are its own (events/authorization.h). Queries
// (_GWMIGExecuteRequestForUser) need a proxy and are checked the same way again. A process holds at
// most kMaxProxiesPerProcess proxies and a uid kMaxProxiesPerUid (the oldest gives way); proxies of
// processes that have ended are dropped whenever that uid makes a new one.
//
// Events older than "eventRetentionDays" of "com.morvane.Gatewise" (default 30, 1 to 3650) are
// forgotten by maybePrune, at most once an hour. One thread (the manager's loop).
#pragma once

#include <gatewise/plist.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/events/event.h"
#include "daemon/events/event_access.h"
#include "daemon/events/event_store.h"
#include "daemon/limits/overrides_file.h"
#include "daemon/sessions/session_monitor.h"
#include "ipc/dispatcher.h"

namespace gw::daemon {

inline constexpr int kDefaultEventRetentionDays = 30;
inline constexpr std::uint64_t kPruneIntervalMicroseconds = 3600ull * 1000000;

class EventService {
 public:
  static constexpr std::size_t kMaxProxiesPerProcess = 8;
  static constexpr std::size_t kMaxProxiesPerUid = 32;
  static constexpr std::size_t kMaxQueryBytes = 64 * 1024;

  // store may be null (no database): events are then logged as lost and queries fail.
  explicit EventService(std::unique_ptr<EventStore> store) : store_(std::move(store)) {}

  EventStore* store() { return store_.get(); }
  void setAccessPolicy(EventAccessPolicy policy) { policy_ = policy; }

  // Keeps event (time already set); logged when it cannot.
  void record(const Event& event);
  // Forgets events past the retention, unless that was done less than an hour ago.
  void maybePrune(plist::Date now, std::uint64_t monotonicMicroseconds);
  // The retention in days the host preferences ask for.
  static int retentionDays();

  // Login, Logout and CountedSession events from a user's new session state.
  void sessionsChanged(uid_t uid, const UserSessions& sessions, plist::Date now);
  // An Override event when today's computer grant grew since it was last read (by: who asked for
  // the reread).
  void overridesRead(uid_t uid, const std::string& dayKey, const Grant& grant,
                     const std::string& by, plist::Date now);
  // A RefusedLogin event, at most one per user a minute (the login stack may ask several times).
  void loginRefused(uid_t uid, std::int32_t reason, std::int32_t seconds, plist::Date now);

  // The three routines. userName and entity are the request's bytes.
  void createProxy(const ipc::Credentials& peer, std::string_view userName,
                   std::span<const std::uint8_t> authorization);
  void releaseProxy(const ipc::Credentials& peer, std::string_view userName,
                    std::span<const std::uint8_t> authorization);
  struct Answer {
    std::int32_t status = 0;
    std::vector<std::uint8_t> archive;  // the events, when status is 0
  };
  Answer execute(const ipc::Credentials& peer, std::string_view userName, std::string_view entity,
                 std::span<const std::uint8_t> query, std::span<const std::uint8_t> authorization);

  std::size_t proxyCount() const { return proxies_.size(); }

 private:
  using ProxyKey = std::tuple<uid_t, pid_t, std::string>;
  struct Proxy {
    std::uint64_t serial = 0;     // order of creation
    std::uint64_t startTime = 0;  // of the process, to notice it ended
  };
  struct SessionState {
    bool loggedIn = false;
    std::string session;
    std::optional<plist::Date> countingSince;
  };

  // The subject's uid when peer may read userName's events with these bytes; else the status.
  std::int32_t admit(const ipc::Credentials& peer, std::string_view userName,
                     std::span<const std::uint8_t> authorization, const char* routine,
                     uid_t* subject);
  void dropEndedProxies(uid_t peerUid);

  std::unique_ptr<EventStore> store_;
  EventAccessPolicy policy_;
  std::map<ProxyKey, Proxy> proxies_;
  std::uint64_t nextSerial_ = 0;
  std::optional<std::uint64_t> lastPrune_;
  std::map<uid_t, SessionState> sessions_;
  std::map<uid_t, std::pair<std::string, Grant>> grants_;  // the day and grant last read
  std::map<uid_t, double> lastRefusal_;
};

}  // namespace gw::daemon
