// Internal access to the routine catalogue (include/gatewise/ipc_catalogue.h).
#pragma once

#include <gatewise/ipc_catalogue.h>
