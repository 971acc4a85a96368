// gatewise-agent: started in every desktop session (XDG autostart); shows the user's status items
// from tutelad as desktop notifications until the session ends.
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <gatewise/runloop.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "agent.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--verbose") {
      gGWFrameworkLoggingLevel = 2;
      gw::LogDestinations destinations;
      destinations.standardError = true;
      gw::setLogDestinations(destinations);
    } else {
      std::fprintf(stderr, "usage: gatewise-agent [--verbose]\n");
      return 2;
    }
  }
  auto user = GetUserShortNameForUID(::getuid());
  if (!user) {
    std::fprintf(stderr, "gatewise-agent: cannot find the name of user %u\n", unsigned(::getuid()));
    return 1;
  }
  sd_event* loop = gw::runloop::currentRunLoop();
  if (!loop) {
    std::fprintf(stderr, "gatewise-agent: cannot make an event loop\n");
    return 1;
  }
  // The session manager ends the agent with SIGTERM; a terminal with SIGINT.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  sd_event_add_signal(loop, nullptr, SIGTERM, nullptr, nullptr);
  sd_event_add_signal(loop, nullptr, SIGINT, nullptr, nullptr);

  std::string error;
  auto agent = gw::agent::Agent::create(loop, {.userName = *user}, &error);
  if (!agent) {
    std::fprintf(stderr, "gatewise-agent: %s\n", error.c_str());
    return 1;
  }
  int r = sd_event_loop(loop);
  agent.reset();
  return r < 0 ? 1 : 0;
}
