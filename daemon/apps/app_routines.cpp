// The daemon's rows for launch questions (whether a user has launch restrictions, whether a program
// may start), reports of refused launches, and detached-signature notices.
//
// A launch is decided for the caller (SO_PEERCRED). Root may ask on behalf of a user: then the
// first integer of _GWMIGAppCanLaunch/_GWMIGAppCanSublaunch/_GWMIGAppLaunchBlocked, and the integer
// of _GWMIGHasAppLaunchRestrictions, name that user's uid when they are positive. Everything that
// makes the daemon read files or record something goes through the per-peer rate limiter; a peer
// over its limit is answered from what is cached, or allowed.
#include <gatewise/launch_reasons.h>

#include <string>

#include "daemon/manager.h"
#include "daemon/routine_table.h"

namespace gw::daemon {
namespace {

using ipc::Reply;
using ipc::Request;

std::string pathOf(const Request& r) {
  std::span<const std::uint8_t> bytes = r.field("path").bytes;
  std::string path(bytes.begin(), bytes.end());
  // Some launchers count the terminating NUL.
  if (std::size_t nul = path.find('\0'); nul != std::string::npos) path.resize(nul);
  return path;
}

uid_t launchingUser(const Request& r, const char* field) {
  std::int64_t asked = r.field(field).integer;
  if (r.peer.uid == 0 && asked > 0 && asked < 0xFFFFFFFF) return uid_t(asked);
  return r.peer.uid;
}

LaunchDecision decide(Manager& m, const Request& r) {
  return m.apps().decide(launchingUser(r, "first"), pathOf(r));
}

Reply hasAppLaunchRestrictions(Manager& m, const Request& r) {
  Reply reply;
  reply.scalars = {m.apps().hasRestrictions(launchingUser(r, "value")) ? 1 : 0};
  return reply;
}

Reply appCanLaunch(Manager& m, const Request& r) {
  LaunchDecision d = decide(m, r);
  Reply reply;
  reply.scalars = {d.allowed ? 1 : 0, d.reason};
  return reply;
}

Reply appCanSublaunch(Manager& m, const Request& r) {
  Reply reply;
  reply.scalars = {decide(m, r).allowed ? 1 : 0};
  return reply;
}

Reply appLaunchBlocked(Manager& m, const Request& r) {
  if (!m.allowPeer(r.peer.uid)) return {};
  uid_t uid = launchingUser(r, "first");
  std::string path = pathOf(r);
  LaunchDecision d = m.apps().decide(uid, path);
  // Only a launch the daemon refuses too is kept: a report cannot make up a refusal.
  if (!d.allowed) m.apps().launchBlocked(uid, path, d);
  return {};
}

Reply notifyKernelOfDetachedSignature(Manager& m, const Request& r) {
  Reply reply;
  if (!m.allowPeer(r.peer.uid)) {
    reply.scalars = {kGWLaunchDaemonNotAsked};
    return reply;
  }
  reply.scalars = {m.apps().detachedSignatureChanged(r.peer.uid, pathOf(r))};
  return reply;
}

constexpr RoutineHandler kRoutines[] = {
    {"_GWMIGHasAppLaunchRestrictions", hasAppLaunchRestrictions},
    {"_GWMIGAppCanLaunch", appCanLaunch},
    {"_GWMIGNotifyKernelOfDetachedSignature", notifyKernelOfDetachedSignature},
    {"_GWMIGAppCanSublaunch", appCanSublaunch},
    {"_GWMIGAppLaunchBlocked", appLaunchBlocked},
    {"_GWMIGAppSublaunchBlocked", appLaunchBlocked},
};

}  // namespace

std::span<const RoutineHandler> appRoutines() { return kRoutines; }

}  // namespace gw::daemon
