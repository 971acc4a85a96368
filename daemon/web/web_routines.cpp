// The daemon's rows for reports of visited and blocked pages and of web-block overrides.
#include "daemon/routine_table.h"

namespace gw::daemon {

std::span<const RoutineHandler> webRoutines() { return {}; }

}  // namespace gw::daemon
