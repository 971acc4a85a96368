// The daemon's rows for managed bookmarks read and written for a user.
#include "daemon/routine_table.h"

namespace gw::daemon {

std::span<const RoutineHandler> bookmarkRoutines() { return {}; }

}  // namespace gw::daemon
