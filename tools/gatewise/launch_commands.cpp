// Launch checks:
//   gatewise launch-restrictions USER|UID   prints yes (exit 0) or no (exit 1)
//   gatewise launch-check PATH [--first N] [--second N]
//     asks as a launcher would (GWIsAppAllowedToLaunchExt; --second defaults to 4) and prints
//     "allowed reason=R" (exit 0) or "denied reason=R" (exit 1).
// Exit 2 with one line for an unknown user, an empty or relative path, or a bad number.
#include <gatewise/core.h>
#include <gatewise/launch.h>

#include <charconv>
#include <cstdio>
#include <memory>

#include "cli.h"

namespace gwcli {
namespace {

// A uid given as digits, else the uid of a short name; nullopt when neither.
std::optional<uid_t> uidOf(const std::string& user) {
  std::uint32_t number = 0;
  auto [end, error] = std::from_chars(user.data(), user.data() + user.size(), number);
  if (!user.empty() && error == std::errc() && end == user.data() + user.size()) {
    return uid_t(number);
  }
  std::uint32_t uid = UIDForShortName(user);
  if (uid == 0xFFFFFFFF) return std::nullopt;
  return uid_t(uid);
}

struct CheckOptions {
  std::string path;
  std::int32_t first = 0;
  std::int32_t second = 4;
};

void registerLaunchCommands(CLI::App& app, Context& context) {
  auto user = std::make_shared<std::string>();
  auto* restrictions =
      app.add_subcommand("launch-restrictions", "Whether USER (a name or uid) has launch limits");
  restrictions->add_option("USER", *user)->required();
  restrictions->callback([&context, user] {
    context.run = [user] {
      std::optional<uid_t> uid = uidOf(*user);
      if (!uid) return fail("no such user: " + *user);
      bool restricted = GWHasAppLaunchRestrictions(*uid);
      std::printf("%s\n", restricted ? "yes" : "no");
      return restricted ? kExitYes : kExitNo;
    };
  });

  auto options = std::make_shared<CheckOptions>();
  auto* check = app.add_subcommand("launch-check", "Whether the program at PATH may start");
  check->add_option("PATH", options->path)->required();
  check->add_option("--first", options->first, "First integer handed to the daemon");
  check->add_option("--second", options->second, "Second integer handed to the daemon (4)");
  check->callback([&context, options] {
    context.run = [options] {
      if (options->path.empty() || options->path[0] != '/') {
        return fail("PATH must be absolute: " + options->path);
      }
      std::int32_t reason = 0;
      bool allowed = GWIsAppAllowedToLaunchExt(options->path.c_str(), options->first,
                                               options->second, &reason);
      std::printf("%s reason=%d\n", allowed ? "allowed" : "denied", int(reason));
      return allowed ? kExitYes : kExitNo;
    };
  });
}

}  // namespace

GW_CLI_COMMANDS(registerLaunchCommands);

}  // namespace gwcli
