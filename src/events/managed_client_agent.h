// Starting the managed-client agent for one user (GWUtilities::kickQRMDForUID).
//
// The agent of this system is "<root>/usr/libexec/gatewise/regentry": it rereads the forced
// preferences of the user given as "-u <uid>" (flag and number in one argument) and, with "-f",
// asks the daemon to reread that user's settings (fcdReadSettingsFor:). It is started with
// posix_spawn and not waited for; the host program reaps it (SIGCHLD) like any child.
#pragma once

#include <sys/types.h>

#include <string>

namespace gw::events {

// "<root>/usr/libexec/gatewise/regentry".
std::string managedClientAgentPath();

// The agent's pid, or 0 when none is installed or it could not be started (logged).
pid_t startManagedClientAgent(uid_t uid);

}  // namespace gw::events
