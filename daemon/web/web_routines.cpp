// The daemon's rows for reports of visited and blocked pages and of web-block overrides. Each is
// recorded as an event; one peer's reports go through the per-peer rate limiter, so a page that
// reloads itself in a loop cannot fill the event store.
#include <gatewise/log.h>

#include "daemon/manager.h"
#include "daemon/routine_table.h"
#include "daemon/web/page_events.h"

namespace gw::daemon {
namespace {

using ipc::Reply;
using ipc::Request;

Reply visitedPage(Manager& m, const Request& r) {
  if (!m.allowPeer(r.peer.uid)) return {};
  m.recordEvent(visitedPageEvent(subjectOf(r, m), r.field("page").bytes, r.field("other").bytes));
  return {};
}

template <const std::string_view& kEntity>
Reply pageReport(Manager& m, const Request& r) {
  if (!m.allowPeer(r.peer.uid)) return {};
  std::string why;
  std::optional<Event> event = pageReportEvent(kEntity, r.peer.uid, r.field("data").bytes, &why);
  if (!event) {
    GW_LOG(1, "*** %s from uid %d dropped: %s", std::string(r.routine.name).c_str(),
           int(r.peer.uid), why.c_str());
    return {};
  }
  m.recordEvent(std::move(*event));
  return {};
}

constexpr RoutineHandler kRoutines[] = {
    {"_GWMIGLumewayVisitedPage", visitedPage},
    {"_GWMIGContentFilterPageWasBlocked", pageReport<kEventBlockedPage>},
    {"_GWMIGContentFilterPageWasVisited", pageReport<kEventVisitedPage>},
    {"_GWMIGOverrideWebBlock", pageReport<kEventWebOverride>},
};

}  // namespace

std::span<const RoutineHandler> webRoutines() { return kRoutines; }

}  // namespace gw::daemon
