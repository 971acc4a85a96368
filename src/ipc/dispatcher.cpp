#include "ipc/dispatcher.h"

#include <gatewise/log.h>

#include <algorithm>
#include <cstring>
#include <exception>

namespace gw::ipc {

const FieldValue& Request::field(std::string_view name) const {
  static const FieldValue kEmpty;
  for (std::size_t i = 0; i < routine.request.size() && i < fields.size(); ++i) {
    if (routine.request[i].name == name) return fields[i];
  }
  return kEmpty;
}

bool Dispatcher::handle(std::string_view routineName, Handler handler) {
  const Routine* routine = routineNamed(routineName);
  if (!routine || routine->service != service_) return false;
  handlers_[routine->id] = std::move(handler);
  return true;
}

std::size_t maxPortsPerRequest() {
  static const std::size_t most = [] {
    std::size_t ports = 0;
    for (const Routine& r : allRoutines())
      ports = std::max<std::size_t>(ports, requestLayout(r).portCount);
    return ports;
  }();
  return most;
}

Dispatcher::Outcome Dispatcher::refuseMalformed(std::span<const std::uint8_t> body,
                                                const Credentials& peer) const {
  Outcome outcome;
  if (body.size() < sizeof(mach_msg_header_t)) return outcome;
  mach_msg_header_t header;
  std::memcpy(&header, body.data(), sizeof header);
  if (header.msgh_local_port == 0) return outcome;
  const Routine* routine = routineWithId(service_, header.msgh_id);
  if (routine && routine->kind != RoutineKind::TwoWay) return outcome;
  GW_LOG(1, "*** request id %d from pid %d came with too many descriptors", header.msgh_id,
         int(peer.pid));
  outcome.answer = true;
  outcome.reply = encodeErrorReply(header, routine ? kMigBadArguments : kMigBadId);
  return outcome;
}

Dispatcher::Outcome Dispatcher::dispatch(std::span<const std::uint8_t> body,
                                         std::span<const int> fds, const Credentials& peer) const {
  Outcome outcome;
  if (body.size() < sizeof(mach_msg_header_t)) return outcome;
  mach_msg_header_t header;
  std::memcpy(&header, body.data(), sizeof header);
  // Only a request that names a reply port can be answered.
  auto refuse = [&](std::int32_t code) {
    if (header.msgh_local_port != 0) {
      outcome.answer = true;
      outcome.reply = encodeErrorReply(header, code);
    }
    return outcome;
  };

  const Routine* routine = routineWithId(service_, header.msgh_id);
  if (!routine) {
    GW_LOG(1, "*** unknown message id %d from pid %d", header.msgh_id, int(peer.pid));
    return refuse(kMigBadId);
  }
  auto fields = decodeRequest(*routine, body, fds);
  if (!fields) {
    GW_LOG(1, "*** malformed %s request from pid %d", std::string(routine->name), int(peer.pid));
    return routine->kind == RoutineKind::TwoWay ? refuse(kMigBadArguments) : outcome;
  }
  Request request{*routine, header, *fields, peer, body};
  if (observer_) observer_(request);
  auto handler = handlers_.find(routine->id);
  if (handler == handlers_.end()) {
    return routine->kind == RoutineKind::TwoWay ? refuse(kMigBadId) : outcome;
  }
  Reply reply;
  try {
    reply = handler->second(request);
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
    return routine->kind == RoutineKind::TwoWay ? refuse(kKernFailure) : outcome;
  }
  outcome.delay = reply.delay;
  if (reply.close || routine->kind != RoutineKind::TwoWay) return outcome;
  outcome.answer = true;
  outcome.reply = reply.rawFrame
                      ? std::move(*reply.rawFrame)
                      : encodeReply(*routine, header, reply.returnCode, reply.scalars, reply.data);
  return outcome;
}

}  // namespace gw::ipc
