#include "ipc/client_call.h"

#include <cstdlib>

namespace gw::ipc {
namespace {

// Receive failures after which the reply port may still hold a late reply: the port is destroyed.
bool poisonsReplyPort(mach_msg_return_t status) {
  return status == MACH_SEND_INVALID_REPLY || status == MACH_RCV_INVALID_NAME ||
         status == MACH_RCV_TIMED_OUT || status == MACH_RCV_PORT_CHANGED ||
         status == MACH_RCV_PORT_DIED;
}

}  // namespace

const Routine& routine(std::string_view name) {
  const Routine* r = routineNamed(name);
  if (!r) std::abort();  // a stub names a routine missing from the catalogue: a build mistake
  return *r;
}

kern_return_t callRoutine(const Routine& routine, mach_port_t server, mach_msg_timeout_t timeout,
                          std::span<const Argument> arguments, const OutPointers& out) {
  MessageBuffer buffer;
  std::uint32_t size = 0;
  const bool twoWay = routine.kind == RoutineKind::TwoWay;
  mach_port_t replyPort = twoWay ? mig_get_reply_port() : 0;
  kern_return_t status = encodeRequest(routine, arguments, server, replyPort, buffer, &size);
  if (status != KERN_SUCCESS) return status;

  if (!twoWay) {
    // The transport sends a copy of the regions and never rewrites the caller's descriptors, so a
    // send time-out leaves no kernel copy behind to release.
    mach_msg_option_t option = routine.kind == RoutineKind::OneWayTimed
                                   ? MACH_SEND_MSG | MACH_SEND_TIMEOUT
                                   : MACH_SEND_MSG;
    return mach_msg(&buffer.header, option, size, 0, 0,
                    routine.kind == RoutineKind::OneWayTimed ? timeout : MACH_MSG_TIMEOUT_NONE, 0);
  }

  status =
      mach_msg(&buffer.header, MACH_SEND_MSG | MACH_RCV_MSG | MACH_SEND_TIMEOUT | MACH_RCV_TIMEOUT,
               size, routine.receiveLimit, replyPort, timeout, 0);
  if (status != MACH_MSG_SUCCESS) {
    if (status != MACH_SEND_TIMED_OUT && poisonsReplyPort(status)) {
      mig_dealloc_reply_port(replyPort);
    } else {
      mig_put_reply_port(replyPort);
    }
    return status;
  }
  mig_put_reply_port(replyPort);

  ReplyFields fields;
  status = checkReply(routine, {buffer.bytes, buffer.header.msgh_size}, &fields);
  if (status != KERN_SUCCESS) {
    mach_msg_destroy(&buffer.header);  // a region or port that came with a rejected reply
    return status;
  }
  if (routine.reply == ReplyShape::Data) {
    if (out.data && out.dataCount) {
      *out.data = fields.data;
      *out.dataCount = fields.dataCount;
    } else {
      std::free(reinterpret_cast<void*>(fields.data));
    }
    return KERN_SUCCESS;
  }
  for (std::size_t i = 0; i < routine.replyOut.size() && i < 4; ++i) {
    if (out.scalars[i]) *out.scalars[i] = fields.scalars[i];
  }
  return KERN_SUCCESS;
}

}  // namespace gw::ipc
