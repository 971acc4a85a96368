// The one client-side exchange every routine stub goes through.
//
// callRoutine() encodes a request from the catalogue, sends it with the routine's options (send
// with or without a time-out; or send and receive with both time-outs), manages the thread's reply
// port as a Mach stub does (destroyed after a receive failure so a late reply is never read) and
// applies the reply checks. Any thread; the reply port is per thread.
#pragma once

#include <gatewise/mach.h>

#include <initializer_list>

#include "ipc/message_codec.h"

namespace gw::ipc {

// The stubs' form of callRoutine (include/gatewise/ipc_catalogue.h).
inline kern_return_t callRoutine(const Routine& routine, mach_port_t server,
                                 mach_msg_timeout_t timeout,
                                 std::initializer_list<Argument> arguments,
                                 const OutPointers& out = {}) {
  return callRoutine(routine, server, timeout,
                     std::span<const Argument>(arguments.begin(), arguments.size()), out);
}

// The catalogue entry behind a stub; defined next to the stubs.
const Routine& routine(std::string_view name);

}  // namespace gw::ipc
