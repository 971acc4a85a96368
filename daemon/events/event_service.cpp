#include "daemon/events/event_service.h"

#include <gatewise/archive.h>
#include <gatewise/core.h>
#include <gatewise/events.h>
#include <gatewise/log.h>

#include <algorithm>
#include <cmath>

#include "daemon/manager.h"
#include "events/authorization.h"
#include "events/predicate.h"
#include "platform/fs/root.h"
#include "platform/prefs/host_preferences.h"

namespace gw::daemon {
namespace {

std::string printable(std::string_view bytes) {
  std::string out;
  for (char c : bytes.substr(0, 64)) out += (c >= 0x20 && c < 0x7f) ? c : '?';
  return out;
}

bool knownSortKey(const std::string& key) {
  return key == "time" || key == "entity" || key == "uid";
}

}  // namespace

void EventService::record(const Event& event) {
  if (!store_ || !store_->record(event)) {
    GW_LOG(0, "*** Lost a %s event of uid %d", event.entity.c_str(), int(event.uid));
  }
}

int EventService::retentionDays() {
  std::optional<plist::Value> stored = prefs::copyHostValue(kHostDomain, "eventRetentionDays");
  if (!stored || !stored->isNumber()) return kDefaultEventRetentionDays;
  double days = stored->doubleValue();
  if (!std::isfinite(days)) return kDefaultEventRetentionDays;
  return int(std::clamp(days, 1.0, 3650.0));
}

void EventService::maybePrune(plist::Date now, std::uint64_t monotonicMicroseconds) {
  if (!store_) return;
  if (lastPrune_ && monotonicMicroseconds - *lastPrune_ < kPruneIntervalMicroseconds) return;
  lastPrune_ = monotonicMicroseconds;
  int days = retentionDays();
  long long removed = store_->prune(now.unixTime() - double(days) * 86400);
  if (removed > 0) GW_LOG(1, "Forgot %lld events older than %d days", removed, days);
}

void EventService::sessionsChanged(uid_t uid, const UserSessions& sessions, plist::Date now) {
  SessionState& state = sessions_[uid];
  auto countedUntilNow = [&] {
    if (!state.countingSince) return;
    auto seconds = std::int64_t(std::llround(now.unixTime() - state.countingSince->unixTime()));
    state.countingSince.reset();
    if (seconds > 0) {
      record({std::string(kEventCountedSession),
              uid,
              now.unixTime(),
              {{"seconds", plist::Value(seconds)}}});
    }
  };
  if (sessions.loggedIn && !state.loggedIn) {
    state.session = std::to_string(uid) + "." + std::to_string(std::llround(now.unixTime()));
    record({std::string(kEventLogin),
            uid,
            now.unixTime(),
            {{"session", plist::Value(state.session)}}});
  }
  if (!sessions.counting) countedUntilNow();
  if (sessions.counting && !state.countingSince) state.countingSince = now;
  if (!sessions.loggedIn && state.loggedIn) {
    record({std::string(kEventLogout),
            uid,
            now.unixTime(),
            {{"session", plist::Value(state.session)}}});
  }
  state.loggedIn = sessions.loggedIn;
  if (!state.loggedIn && !state.countingSince) sessions_.erase(uid);
}

void EventService::overridesRead(uid_t uid, const std::string& dayKey, const Grant& grant,
                                 const std::string& by, plist::Date now) {
  Grant before;
  auto it = grants_.find(uid);
  if (it != grants_.end() && it->second.first == dayKey) before = it->second.second;
  grants_[uid] = {dayKey, grant};
  if (grants_.size() > 65536) grants_.clear();  // bounded; forgetting only risks a repeat
  bool grew = (grant.unlimited && !before.unlimited) ||
              (!grant.unlimited && !before.unlimited && grant.seconds > before.seconds);
  if (!grew) return;
  std::int64_t seconds = grant.unlimited ? -1 : grant.seconds - before.seconds;
  record({std::string(kEventOverride),
          uid,
          now.unixTime(),
          {{"limit", plist::Value("computer")},
           {"seconds", plist::Value(seconds)},
           {"by", plist::Value(by)}}});
}

void EventService::loginRefused(uid_t uid, std::int32_t reason, std::int32_t seconds,
                                plist::Date now) {
  auto it = lastRefusal_.find(uid);
  if (it != lastRefusal_.end() && std::abs(now.unixTime() - it->second) < 60) return;
  if (lastRefusal_.size() > 65536) lastRefusal_.clear();
  lastRefusal_[uid] = now.unixTime();
  record({std::string(kEventRefusedLogin),
          uid,
          now.unixTime(),
          {{"reason", plist::Value(std::int64_t(reason))},
           {"seconds", plist::Value(std::int64_t(seconds))}}});
}

std::int32_t EventService::admit(const ipc::Credentials& peer, std::string_view userName,
                                 std::span<const std::uint8_t> authorization, const char* routine,
                                 uid_t* subject) {
  std::string form = events::checkExternalForm(authorization, peer.pid, peer.uid);
  if (!form.empty()) {
    GW_LOG(0, "*** %s from uid %d pid %d refused: %s", routine, int(peer.uid), int(peer.pid),
           form.c_str());
    return kGWEventsNotAllowed;
  }
  std::string name(userName);
  std::uint32_t uid = fs::isSafeName(name) ? UIDForShortName(name) : 0xFFFFFFFFu;
  if (uid == 0xFFFFFFFFu) {
    GW_LOG(0, "*** %s: unknown user \"%s\"", routine, printable(userName).c_str());
    return kGWEventsBadRequest;
  }
  if (!mayReadEvents(peer.uid, peer.gid, uid_t(uid), policy_)) {
    GW_LOG(0, "*** %s: uid %d may not read the events of %s", routine, int(peer.uid), name.c_str());
    return kGWEventsNotAllowed;
  }
  *subject = uid_t(uid);
  return 0;
}

void EventService::dropEndedProxies(uid_t peerUid) {
  for (auto it = proxies_.begin(); it != proxies_.end();) {
    const auto& [uid, pid, name] = it->first;
    bool ended = uid == peerUid && events::startTimeOfProcess(pid) != it->second.startTime;
    it = ended ? proxies_.erase(it) : std::next(it);
  }
}

void EventService::createProxy(const ipc::Credentials& peer, std::string_view userName,
                               std::span<const std::uint8_t> authorization) {
  uid_t subject = 0;
  if (admit(peer, userName, authorization, "_GWMIGCreateMOCProxyForUser", &subject) != 0) return;
  dropEndedProxies(peer.uid);
  ProxyKey key{peer.uid, peer.pid, std::string(userName)};
  if (proxies_.count(key)) return;
  // Make room: the oldest proxy of the same process, else of the same uid, gives way.
  auto oldest = [&](bool sameProcess) {
    std::size_t held = 0;
    auto found = proxies_.end();
    for (auto it = proxies_.begin(); it != proxies_.end(); ++it) {
      const auto& [uid, pid, name] = it->first;
      if (uid != peer.uid || (sameProcess && pid != peer.pid)) continue;
      ++held;
      if (found == proxies_.end() || it->second.serial < found->second.serial) found = it;
    }
    return std::pair{held, found};
  };
  for (bool sameProcess : {true, false}) {
    auto [held, it] = oldest(sameProcess);
    if (held >= (sameProcess ? kMaxProxiesPerProcess : kMaxProxiesPerUid)) proxies_.erase(it);
  }
  proxies_[key] = Proxy{nextSerial_++, events::startTimeOfProcess(peer.pid).value_or(0)};
  GW_LOG(1, "Events proxy for %s made for uid %d pid %d", std::string(userName).c_str(),
         int(peer.uid), int(peer.pid));
}

void EventService::releaseProxy(const ipc::Credentials& peer, std::string_view userName,
                                std::span<const std::uint8_t> authorization) {
  if (!events::checkExternalForm(authorization, peer.pid, peer.uid).empty()) return;
  proxies_.erase(ProxyKey{peer.uid, peer.pid, std::string(userName)});
}

EventService::Answer EventService::execute(const ipc::Credentials& peer, std::string_view userName,
                                           std::string_view entity,
                                           std::span<const std::uint8_t> query,
                                           std::span<const std::uint8_t> authorization) {
  constexpr const char* kRoutine = "_GWMIGExecuteRequestForUser";
  Answer answer;
  auto refuse = [&](std::int32_t status, const std::string& why) {
    GW_LOG(0, "*** %s from uid %d: %s", kRoutine, int(peer.uid), why.c_str());
    answer.status = status;
    return answer;
  };
  uid_t subject = 0;
  answer.status = admit(peer, userName, authorization, kRoutine, &subject);
  if (answer.status != 0) return answer;
  if (!proxies_.count(ProxyKey{peer.uid, peer.pid, std::string(userName)})) {
    return refuse(kGWEventsNoProxy, "no proxy for " + std::string(userName));
  }
  if (query.size() > kMaxQueryBytes) {
    return refuse(kGWEventsBadRequest, "a query of " + std::to_string(query.size()) + " bytes");
  }
  GWFetchRequestRef request = archive::unarchiveObjectWithData(query).ifObject<GWFetchRequest>();
  if (!request) return refuse(kGWEventsBadRequest, "the query is not a fetch request");

  // The entity named by the message and the one in the request must agree ("Event": any).
  std::string named(entity.substr(0, 256));
  std::string wanted = request->entityName();
  if (named == kGWEventAnyEntity) named.clear();
  if (wanted == kGWEventAnyEntity) wanted.clear();
  if (!named.empty() && !wanted.empty() && named != wanted) {
    return refuse(kGWEventsBadRequest,
                  "entity " + printable(named) + " and a request for " + printable(wanted));
  }
  if (wanted.empty()) wanted = named;
  if (!wanted.empty() && !GWIsKnownEventEntity(wanted)) {
    return refuse(kGWEventsBadRequest, "unknown entity \"" + printable(wanted) + "\"");
  }
  if (request->fetchLimit() > kGWMaxFetchLimit) {
    return refuse(kGWEventsBadRequest, "fetch limit " + std::to_string(request->fetchLimit()) +
                                           " is more than " + std::to_string(kGWMaxFetchLimit));
  }
  if (!knownSortKey(request->sortKey())) {
    return refuse(kGWEventsBadRequest,
                  "unknown sort key \"" + printable(request->sortKey()) + "\"");
  }
  events::ParsedPredicate predicate = events::parsePredicate(request->predicate());
  if (!predicate.ok) return refuse(kGWEventsBadRequest, "predicate: " + predicate.error);
  if (!store_) return refuse(kGWEventsFailed, "no event database");

  EventStore::Query q;
  q.uid = subject;
  q.entity = wanted;
  q.predicate = predicate.root.get();
  q.sortKey = request->sortKey();
  q.ascending = request->ascending();
  q.limit = request->fetchLimit() == 0 ? kGWMaxFetchLimit : std::size_t(request->fetchLimit());
  EventStore::Result result = store_->query(q);
  if (!result.ok) return refuse(kGWEventsFailed, "the query failed: " + result.error);

  auto list = plist::Array::make();
  for (GWEventRef& event : result.events) list->append(plist::Value(std::move(event)));
  answer.archive = archive::archivedDataWithRootObject(plist::Value(list));
  if (answer.archive.empty()) return refuse(kGWEventsFailed, "the events could not be archived");
  GW_LOG(1, "%s: %d events of %s for uid %d", kRoutine, int(list->size()),
         std::string(userName).c_str(), int(peer.uid));
  return answer;
}

}  // namespace gw::daemon
