// tutelad: the root daemon that makes managed users' time limits hold.
//
//   tutelad [--root DIR] [--foreground] [--log-level N]
//
// --root serves a system root other than "/" (as GATEWISE_ROOT does); --foreground also writes the
// log to standard error. Under systemd the listening socket is handed over (socket activation);
// otherwise tutelad binds "<bootstrap folder>/com.morvane.gatewise" itself.
#include <gatewise/log.h>
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "daemon/manager.h"
#include "daemon/usage/usage_store.h"
#include "ipc/message_server.h"

namespace {

int usage() {
  std::fprintf(stderr, "usage: tutelad [--root DIR] [--foreground] [--log-level N]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool foreground = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--foreground") {
      foreground = true;
    } else if (arg == "--root" && i + 1 < argc) {
      ::setenv("GATEWISE_ROOT", argv[++i], 1);
    } else if (arg == "--log-level" && i + 1 < argc) {
      gGWFrameworkLoggingLevel = std::atoi(argv[++i]);
    } else {
      return usage();
    }
  }
  if (foreground) {
    gw::LogDestinations destinations = gw::logDestinations();
    destinations.standardError = true;
    gw::setLogDestinations(destinations);
  }

  gw::daemon::ManagerOptions options;
  options.socketPath = gw::ipc::serviceSocketPathFor(gw::ipc::Service::Daemon);
  options.databasePath = gw::daemon::defaultUsageDatabasePath();
  int passed = sd_listen_fds(1);
  if (passed == 1) {
    options.activatedListener = gw::fs::UniqueFd(SD_LISTEN_FDS_START);
  } else if (passed > 1) {
    std::fprintf(stderr, "tutelad: expected one socket, got %d\n", passed);
    return 1;
  }
  std::string error;
  std::unique_ptr<gw::daemon::Manager> manager =
      gw::daemon::Manager::create(std::move(options), &error);
  if (!manager) {
    std::fprintf(stderr, "tutelad: %s\n", error.c_str());
    GW_LOG(0, "*** tutelad could not start: %s", error.c_str());
    return 1;
  }
  GW_LOG(1, "tutelad serving %s", gw::ipc::serviceSocketPathFor(gw::ipc::Service::Daemon).c_str());
  return manager->run();
}
