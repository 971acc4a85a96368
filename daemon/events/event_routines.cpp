// The daemon's rows for queries of a user's recorded events. Each request is rate-limited per
// peer before any work; the checks themselves are the event service's.
#include <gatewise/events.h>

#include "daemon/events/event_service.h"
#include "daemon/manager.h"
#include "daemon/routine_table.h"

namespace gw::daemon {
namespace {

using ipc::Reply;
using ipc::Request;

std::string_view text(const ipc::FieldValue& field) {
  return {reinterpret_cast<const char*>(field.bytes.data()), field.bytes.size()};
}

Reply createProxy(Manager& m, const Request& r) {
  if (m.allowPeer(r.peer.uid)) {
    m.events().createProxy(r.peer, text(r.field("userName")), r.field("data").bytes);
  }
  return {};
}

Reply releaseProxy(Manager& m, const Request& r) {
  m.events().releaseProxy(r.peer, text(r.field("userName")), r.field("data").bytes);
  return {};
}

// first: the entity name, second: the archived fetch request, third: the authorization.
Reply executeRequest(Manager& m, const Request& r) {
  Reply reply;
  if (!m.allowPeer(r.peer.uid)) {
    reply.returnCode = kGWEventsFailed;
    return reply;
  }
  EventService::Answer answer =
      m.events().execute(r.peer, text(r.field("userName")), text(r.field("first")),
                         r.field("second").bytes, r.field("third").bytes);
  reply.returnCode = answer.status;
  reply.data = std::move(answer.archive);
  return reply;
}

constexpr RoutineHandler kRoutines[] = {
    {"_GWMIGCreateMOCProxyForUser", createProxy},
    {"_GWMIGReleaseMOCProxyForUser", releaseProxy},
    {"_GWMIGExecuteRequestForUser", executeRequest},
};

}  // namespace

std::span<const RoutineHandler> eventRoutines() { return kRoutines; }

}  // namespace gw::daemon
