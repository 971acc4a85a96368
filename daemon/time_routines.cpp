// The routines of the login gate and the time limits, and the walk over every subsystem's rows.
//
// Resetting usage is root's alone. Rereads and flushes go through the per-peer rate limiter.
// Routines without a row in any table are answered MIG_BAD_ID (-303) when two-way and dropped when
// one-way, with one log line per routine.
#include <gatewise/log.h>

#include <set>
#include <string>

#include "daemon/manager.h"
#include "daemon/routine_table.h"

namespace gw::daemon {

using ipc::Reply;
using ipc::Request;

uid_t subjectOf(const Request& request, Manager& manager) {
  auto asked = uid_t(std::uint32_t(request.field("uid").integer));
  uid_t peer = request.peer.uid;
  if (peer == 0 || asked == peer) return asked;
  if (manager.allowPeer(peer)) {
    GW_LOG(0, "*** uid %d asked %s about uid %d; answering about itself", int(peer),
           std::string(request.routine.name).c_str(), int(asked));
  }
  return peer;
}

namespace {

Reply userCanLogin(Manager& m, const Request& r) {
  uid_t subject = subjectOf(r, m);
  Decision d = m.loginDecision(subject);
  // Root asking is the login stack: a refusal there is a refused login.
  if (r.peer.uid == 0 && !d.allowed()) {
    m.events().loginRefused(subject, std::int32_t(d.reason), d.seconds(m.now()), m.now());
  }
  Reply reply;
  reply.scalars = {d.seconds(m.now()), std::int32_t(d.reason)};
  return reply;
}

Reply getStatusItems(Manager& m, const Request& r) {
  Reply reply;
  reply.data = encodeStatusItems(m.statusItems(r.peer.uid));
  return reply;
}

Reply readOverrides(Manager& m, const Request& r) {
  if (m.allowPeer(r.peer.uid)) m.rereadOverrides(subjectOf(r, m), r.peer.uid);
  return {};
}

Reply readSettings(Manager& m, const Request& r) {
  if (m.allowPeer(r.peer.uid)) m.rereadSettings(subjectOf(r, m));
  return {};
}

Reply saveUsageData(Manager& m, const Request& r) {
  if (m.allowPeer(r.peer.uid)) m.saveUsage();
  return {};
}

Reply resetUsageData(Manager& m, const Request& r) {
  if (r.peer.uid != 0) {
    if (m.allowPeer(r.peer.uid)) {
      GW_LOG(0, "*** uid %d may not reset usage; ignored", int(r.peer.uid));
    }
    return {};
  }
  m.resetUsage(uid_t(std::uint32_t(r.field("uid").integer)));
  return {};
}

Reply listeningStatusChanged(Manager& m, const Request& r) {
  if (m.allowPeer(r.peer.uid)) m.listeningStatusChanged();
  return {};
}

constexpr RoutineHandler kRoutines[] = {
    {"_GWMIGUserCanLogin", userCanLogin},
    {"_GWMIGGetStatusItems", getStatusItems},
    {"_GWMIGReadOverrides", readOverrides},
    {"_GWMIGReadSettings", readSettings},
    {"_GWMIGSaveUsageData", saveUsageData},
    {"_GWMIGResetUsageData", resetUsageData},
    {"_GWMIGListeningStatusChanged", listeningStatusChanged},
};

}  // namespace

std::span<const RoutineHandler> timeLimitRoutines() { return kRoutines; }

void registerRoutines(ipc::Dispatcher& dispatcher, Manager& manager) {
  std::set<std::string_view> served;
  for (auto table : {timeLimitRoutines(), appRoutines(), webRoutines(), bookmarkRoutines(),
                     mailRoutines(), eventRoutines()}) {
    for (const RoutineHandler& h : table) {
      dispatcher.handle(h.routine,
                        [&manager, h](const Request& r) { return h.handle(manager, r); });
      served.insert(h.routine);
    }
  }
  auto unsupportedLogged = std::make_shared<std::set<std::string_view>>();
  for (const ipc::Routine& routine : ipc::allRoutines()) {
    if (routine.service != ipc::Service::Daemon || served.count(routine.name)) continue;
    dispatcher.handle(routine.name, [unsupportedLogged](const Request& r) {
      if (unsupportedLogged->insert(r.routine.name).second) {
        GW_LOG(0, "*** %s is not supported by this daemon yet",
               std::string(r.routine.name).c_str());
      }
      Reply reply;
      reply.returnCode = ipc::kMigBadId;
      return reply;
    });
  }
}

}  // namespace gw::daemon
