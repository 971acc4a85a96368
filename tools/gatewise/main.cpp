// gatewise: every capability of the library, from a shell.
#include <gatewise/log.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli.h"

namespace gwcli {
namespace {

std::vector<Registrar>& registrars() {
  static std::vector<Registrar> all;
  return all;
}

}  // namespace

Registration::Registration(Registrar registrar) { registrars().push_back(registrar); }

int fail(std::string_view message) {
  // One line, whatever the message holds, so scripts can read the reason with `read`.
  std::string line(message);
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  std::fprintf(stderr, "gatewise: %s\n", line.c_str());
  return kExitUsage;
}

}  // namespace gwcli

int main(int argc, char** argv) {
  CLI::App app{"Gatewise: parental controls for managed accounts"};
  app.require_subcommand(1);
  std::string root;
  int logLevel = 0;
  bool logStderr = false;
  app.add_option("--root", root, "System root for this run (overrides GATEWISE_ROOT)");
  auto* levelOption = app.add_option("--log-level", logLevel, "Log threshold for this run");
  app.add_flag("--log-stderr", logStderr, "Also write log lines to standard error");

  gwcli::Context context;
  for (gwcli::Registrar registrar : gwcli::registrars()) registrar(app, context);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return gwcli::fail(e.what());
  }

  if (!root.empty()) ::setenv("GATEWISE_ROOT", root.c_str(), 1);
  if (levelOption->count() > 0) gGWFrameworkLoggingLevel = logLevel;
  if (logStderr) {
    gw::LogDestinations destinations = gw::logDestinations();
    destinations.standardError = true;
    gw::setLogDestinations(std::move(destinations));
  }
  if (!context.run) return gwcli::fail("no command given");
  try {
    return context.run();
  } catch (const std::exception& e) {
    return gwcli::fail(e.what());
  }
}
