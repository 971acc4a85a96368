// sPrebindingLock: serialises every call into the unprebinding toolkit, whose state is global and
// not re-entrant. Statically initialised; held only around the call, never while hashing.
#pragma once

#include <mutex>

namespace gw::identity {

extern std::mutex sPrebindingLock;

}  // namespace gw::identity
