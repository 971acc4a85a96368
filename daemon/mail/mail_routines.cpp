// The daemon's rows for mail white list and chat logs.
#include "daemon/routine_table.h"

namespace gw::daemon {

std::span<const RoutineHandler> mailRoutines() { return {}; }

}  // namespace gw::daemon
