// `gatewise usage USER`: today's counted computer use of a managed user and the time left, as
// "used=S remaining=S" (remaining=unlimited when nothing limits it, remaining=unknown without a
// daemon). The used seconds come from the daemon's usage database, opened read-only after asking
// the daemon to save what it counted; the time left is the daemon's own login answer.
// `gatewise usage reset USER`: asks the daemon to forget today's usage (root only).
#include <gatewise/core.h>
#include <gatewise/ipc.h>
#include <gatewise/login_reasons.h>
#include <gatewise/mach.h>
#include <sqlite3.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "cli.h"

namespace gwcli {
namespace {

constexpr const char* kUsageDatabase =
    "/Library/Application Support/Morvane/Tutela/State/tutelad.sqlite";

std::optional<uid_t> userId(const std::string& user) {
  char* end = nullptr;
  unsigned long n = std::strtoul(user.c_str(), &end, 10);
  if (!user.empty() && *end == '\0' && n < 0xFFFFFFFFul) return uid_t(n);
  std::uint32_t uid = UIDForShortName(user);
  if (uid == 0xFFFFFFFFu) return std::nullopt;
  return uid_t(uid);
}

std::string todayKey() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char key[32];
  std::strftime(key, sizeof key, "%Y-%m-%d", &local);
  return key;
}

// Seconds counted today; 0 when the database or the row is missing.
double usedToday(uid_t uid) {
  std::string path = GWRootedPath(kUsageDatabase);
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW, nullptr) !=
      SQLITE_OK) {
    sqlite3_close(db);
    return 0;
  }
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> owned(db, sqlite3_close);
  sqlite3_busy_timeout(db, 2000);
  sqlite3_stmt* q = nullptr;
  double used = 0;
  if (sqlite3_prepare_v2(db, "SELECT used FROM usage WHERE uid = ?1 AND day = ?2", -1, &q,
                         nullptr) == SQLITE_OK) {
    std::string day = todayKey();
    sqlite3_bind_int64(q, 1, uid);
    sqlite3_bind_text(q, 2, day.c_str(), int(day.size()), SQLITE_TRANSIENT);
    if (sqlite3_step(q) == SQLITE_ROW) used = sqlite3_column_double(q, 0);
  }
  sqlite3_finalize(q);
  return used;
}

int showUsage(const std::string& user) {
  std::optional<uid_t> uid = userId(user);
  if (!uid) return fail("unknown user \"" + user + "\"");
  GWUtilities::fcdSaveUsageDataFor(*uid);
  std::string remaining = "unknown";
  mach_port_t port = 0;
  if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) == 0) {
    std::int32_t seconds = 0, reason = 0;
    if (_GWMIGUserCanLogin(port, 5000, *uid, &seconds, &reason) == 0) {
      remaining = reason != gw::kGWLoginAllowed ? "0"
                  : seconds == 0                ? "unlimited"
                                                : std::to_string(seconds);
    }
  }
  std::printf("used=%lld remaining=%s\n", static_cast<long long>(std::llround(usedToday(*uid))),
              remaining.c_str());
  return remaining == "unknown" ? kExitNo : kExitYes;
}

int resetUsage(const std::string& user) {
  std::optional<uid_t> uid = userId(user);
  if (!uid) return fail("unknown user \"" + user + "\"");
  kern_return_t status = GWUtilities::fcdResetUsageDataFor(*uid);
  std::printf("status=%d\n", status);
  return status == 0 ? kExitYes : kExitNo;
}

void registerUsageCommands(CLI::App& app, Context& context) {
  auto user = std::make_shared<std::string>();
  auto resetUser = std::make_shared<std::string>();
  auto* usage = app.add_subcommand("usage", "Today's counted use and time left of USER");
  usage->add_option("USER", *user, "User name or uid");
  auto* reset = usage->add_subcommand("reset", "Forget today's counted use of USER (root only)");
  reset->add_option("USER", *resetUser, "User name or uid")->required();
  reset->callback(
      [&context, resetUser] { context.run = [resetUser] { return resetUsage(*resetUser); }; });
  usage->callback([&context, user, reset] {
    if (reset->parsed()) return;
    context.run = [user] {
      if (user->empty()) return fail("usage: gatewise usage USER | gatewise usage reset USER");
      return showUsage(*user);
    };
  });
}

}  // namespace

GW_CLI_COMMANDS(registerUsageCommands);

}  // namespace gwcli
