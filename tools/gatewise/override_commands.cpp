// Daily overrides and the administrator login override:
//   gatewise overrides extend USER LIMIT SECONDS | total USER LIMIT [--include-expired] |
//   expire USER LIMIT
//   gatewise authorize-login USER [--minutes N]
// LIMIT is a limit item's id or __COMPUTER__.
#include <gatewise/auth.h>
#include <gatewise/core.h>
#include <gatewise/login.h>
#include <gatewise/schedule/overrides.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "cli.h"

namespace gwcli {
namespace {

struct OverrideOptions {
  std::string user;
  std::string limit;
  std::int64_t seconds = 0;
  bool includeExpired = false;
  std::int64_t minutes = -1;
};

// Names that could never be a user's folder are refused here, with a reason, rather than by the
// library's silent refusal.
int checkNames(const OverrideOptions& options) {
  if (options.user.empty() || options.user.find('/') != std::string::npos || options.user == "." ||
      options.user == "..") {
    return fail("invalid user name: " + options.user);
  }
  if (options.limit.empty()) return fail("invalid limit: empty");
  return 0;
}

int extend(const OverrideOptions& options) {
  if (int bad = checkNames(options)) return bad;
  if (options.seconds < INT32_MIN || options.seconds > INT32_MAX) {
    return fail("seconds out of range: " + std::to_string(options.seconds));
  }
  gw::GWExtendSecondsForToday(options.user, options.limit, std::int32_t(options.seconds));
  return kExitYes;
}

int total(const OverrideOptions& options) {
  if (int bad = checkNames(options)) return bad;
  std::printf("%d\n",
              gw::GWExtendedSecondsForToday(options.user, options.limit, options.includeExpired));
  return kExitYes;
}

int expire(const OverrideOptions& options) {
  if (int bad = checkNames(options)) return bad;
  gw::GWExpireAllOverridesForToday(options.user, options.limit);
  return kExitYes;
}

int authorizeLogin(const OverrideOptions& options) {
  std::uint32_t uid = UIDForShortName(options.user);
  if (uid == 0xFFFFFFFF) return fail("unknown user: " + options.user);
  if (options.minutes >= 0) {
    if (options.minutes > UINT32_MAX) return fail("minutes out of range");
    gw::auth::setOverrideMinutes(std::uint32_t(options.minutes));
  }
  bool allowed = GWAuthorizeManagedUserLogin(uid_t(uid), options.user);
  std::puts(allowed ? "allowed" : "refused");
  return allowed ? kExitYes : kExitNo;
}

void registerOverrideCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<OverrideOptions>();
  CLI::App* overrides = app.add_subcommand("overrides", "Extra time granted for today");
  overrides->require_subcommand(1);
  auto userAndLimit = [options](CLI::App* command) {
    command->add_option("USER", options->user, "Short name of the managed user")->required();
    command->add_option("LIMIT", options->limit, "Limit item id or __COMPUTER__")->required();
  };

  CLI::App* extendCommand = overrides->add_subcommand("extend", "Grant SECONDS (-1: unlimited)");
  userAndLimit(extendCommand);
  extendCommand->add_option("SECONDS", options->seconds, "Seconds to grant")->required();
  extendCommand->callback(
      [&context, options] { context.run = [options] { return extend(*options); }; });

  CLI::App* totalCommand = overrides->add_subcommand("total", "Print today's granted seconds");
  userAndLimit(totalCommand);
  totalCommand->add_flag("--include-expired", options->includeExpired, "Count used-up grants too");
  totalCommand->callback(
      [&context, options] { context.run = [options] { return total(*options); }; });

  CLI::App* expireCommand = overrides->add_subcommand("expire", "Mark today's grants used up");
  userAndLimit(expireCommand);
  expireCommand->callback(
      [&context, options] { context.run = [options] { return expire(*options); }; });

  CLI::App* authorize =
      app.add_subcommand("authorize-login", "Ask an administrator to let USER log in now");
  authorize->add_option("USER", options->user, "Short name of the managed user")->required();
  authorize->add_option("--minutes", options->minutes, "Minutes to grant when the right is given");
  authorize->callback(
      [&context, options] { context.run = [options] { return authorizeLogin(*options); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerOverrideCommands);

}  // namespace gwcli
