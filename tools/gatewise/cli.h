// The command-line tool's command registry.
//
// Each command file registers its subcommands with GW_CLI_COMMANDS(fn); fn adds them to the app and
// gives each a callback that stores the work to run in Context::run. main() parses the command
// line, applies the global options (--root, --log-level, --log-stderr) and only then runs that
// work, so a command always sees the system root and threshold the user asked for.
//
// Exit status: 0 success, 1 a "no" answer to a question, 2 bad usage or input (with a one-line
// error on standard error, written by fail()).
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <string_view>

namespace gwcli {

inline constexpr int kExitYes = 0;
inline constexpr int kExitNo = 1;
inline constexpr int kExitUsage = 2;

struct Context {
  std::function<int()> run;
};

using Registrar = void (*)(CLI::App& app, Context& context);

struct Registration {
  explicit Registration(Registrar registrar);
};

// Writes "gatewise: <message>" to standard error and returns kExitUsage.
int fail(std::string_view message);

}  // namespace gwcli

#define GW_CLI_COMMANDS(registrar) \
  static const ::gwcli::Registration gw_cli_registration_##registrar(registrar)
