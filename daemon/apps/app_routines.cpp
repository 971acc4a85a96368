// The daemon's rows for launch questions (whether a user has launch restrictions, whether a program may start) and reports of refused launches.
#include "daemon/routine_table.h"

namespace gw::daemon {

std::span<const RoutineHandler> appRoutines() { return {}; }

}  // namespace gw::daemon
