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

// Where a reply's out fields go: one pointer per Plain scalar, or the region and its size.
struct OutPointers {
  std::int32_t* scalars[4] = {};
  vm_offset_t* data = nullptr;
  mach_msg_type_number_t* dataCount = nullptr;
};

// Returns 0, a transport status, a MIG status or the daemon's return code. Out fields are stored
// only on success; a received region then belongs to the caller (vm_deallocate).
kern_return_t callRoutine(const Routine& routine, mach_port_t server, mach_msg_timeout_t timeout,
                          std::initializer_list<Argument> arguments, const OutPointers& out = {});

// The catalogue entry behind a stub; defined next to the stubs.
const Routine& routine(std::string_view name);

}  // namespace gw::ipc
