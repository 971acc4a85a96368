// Port names of the socket transport: service ports from bootstrap_look_up(), each standing for
// one socket path, and the look-up connection a thread keeps for its next message on that port.
//
// The name table is process-wide (mutex-guarded) and only grows by one entry per distinct socket
// path looked up. Look-up connections are per thread (thread_local), at most one per port, and
// closed when replaced, taken, deallocated or when the thread ends.
#pragma once

#include <gatewise/mach.h>

#include <string>

#include "platform/fs/unique_fd.h"

namespace gw::mach {

using fs::UniqueFd;

// The socket path a service port stands for; empty when the name is not a service port.
std::string servicePathForPort(mach_port_t port);

// Takes this thread's look-up connection for port (an empty UniqueFd when there is none).
UniqueFd takeLookUpConnection(mach_port_t port);

}  // namespace gw::mach
