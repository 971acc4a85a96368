// The launch routines through the daemon's socket: a managed user's launcher (a child with its uid
// dropped) is answered about itself from its white list, whatever uid it names; root may name one;
// a refusal it reports becomes the user's blacklisted status item.
#include <gatewise/ipc.h>
#include <gatewise/launch.h>
#include <gatewise/plist.h>
#include <gatewise/status.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/manager.h"
#include "daemon/usage/usage_store.h"
#include "ipc/message_server.h"
#include "support/temp_root.h"

namespace {

using gw::plist::Value;

constexpr uid_t kUid = 1;

// Runs body in a child as uid (root stays root) while the loop serves; body's result, or -1.
int inChild(sd_event* loop, uid_t uid, const std::function<int()>& body) {
  pid_t pid = ::fork();
  if (pid == 0) {
    if (uid != 0 && (::setgid(uid) != 0 || ::setuid(uid) != 0)) ::_exit(99);
    ::_exit(body());
  }
  for (int round = 0; round < 3000; ++round) {  // bounded at about 30 seconds
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == pid)
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    sd_event_run(loop, 10'000);
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  return -1;
}

// The answer as one number: reason * 2 + allowed.
int ask(const std::string& path, std::int32_t first) {
  std::int32_t reason = -1;
  bool allowed = GWIsAppAllowedToLaunch(path.c_str(), first, &reason);
  return reason * 2 + (allowed ? 1 : 0);
}

TEST(LaunchRoutinesTest, ALauncherIsAnsweredAboutItsOwnUserAndItsRefusalsAreShown) {
  passwd* pw = ::getpwuid(kUid);
  if (!pw) GTEST_SKIP() << "no user with uid 1";
  gwtest::TempRoot root;
  ::chmod(root.path().c_str(), 0755);
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root.at("/no-bus")).c_str(), 1);
  std::string editor = root.writeFile("/opt/editor", "x");
  std::string game = root.writeFile("/opt/game", "x");
  root.writeFile(
      std::string("/Library/Managed Preferences/") + pw->pw_name + "/" +
          kGWApplicationAccessDomain + ".plist",
      *gw::plist::writePropertyList(
          Value::newDictionary(
              {{"gatewiseEnabled", true},
               {"whiteList", Value::newArray({Value::newDictionary({{"path", editor}})})}}),
          gw::plist::Format::XML));

  // A serving manager blocks the termination signals for its loop; the programs that later tests
  // start would inherit that mask, so it is put back when this test ends.
  sigset_t previousMask;
  ::sigprocmask(SIG_BLOCK, nullptr, &previousMask);
  struct RestoreMask {
    sigset_t mask;
    ~RestoreMask() { ::sigprocmask(SIG_SETMASK, &mask, nullptr); }
  } restoreMask{previousMask};
  gw::daemon::ManagerOptions options;
  options.socketPath = gw::ipc::serviceSocketPathFor(gw::ipc::Service::Daemon);
  options.databasePath = gw::daemon::defaultUsageDatabasePath();
  options.clock = std::make_shared<gw::daemon::ManualClock>(gw::plist::Date::now());
  std::string error;
  auto manager = gw::daemon::Manager::create(std::move(options), &error);
  ASSERT_TRUE(manager) << error;
  sd_event* loop = manager->loop();

  EXPECT_EQ(inChild(loop, kUid, [&] { return ask(editor, 0); }), gw::kGWLaunchWhiteListed * 2 + 1);
  EXPECT_EQ(inChild(loop, kUid, [&] { return ask(game, 0); }), gw::kGWLaunchNotWhiteListed * 2);
  // Naming another (unrestricted) uid does not help a user.
  EXPECT_EQ(inChild(loop, kUid, [&] { return ask(game, 2); }), gw::kGWLaunchNotWhiteListed * 2);
  EXPECT_EQ(inChild(loop, 0, [&] { return ask(game, 0); }), gw::kGWLaunchUnrestricted * 2 + 1);
  EXPECT_EQ(inChild(loop, 0, [&] { return ask(game, kUid); }), gw::kGWLaunchNotWhiteListed * 2);
  EXPECT_EQ(inChild(loop, kUid,
                    [&] {
                      std::int32_t result = -1;
                      mach_port_t port = 0;
                      if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != 0)
                        return 98;
                      _GWMIGHasAppLaunchRestrictions(port, 5000, 0, &result);
                      return int(result);
                    }),
            1);

  EXPECT_TRUE(manager->statusItems(kUid).empty());
  // A report of a launch the daemon allows is not kept; one it refuses is.
  EXPECT_EQ(inChild(loop, kUid,
                    [&] {
                      GWAppLaunchWasBlocked(editor.c_str(), 0);
                      GWAppLaunchWasBlocked(game.c_str(), 0);
                      return 0;
                    }),
            0);
  for (int round = 0; round < 100 && manager->statusItems(kUid).empty(); ++round) {
    sd_event_run(loop, 10'000);
  }
  std::vector<gw::daemon::StatusItemInfo> items = manager->statusItems(kUid);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].statusKind, gw::kGWStatusKindBlacklisted);
  EXPECT_EQ(items[0].itemName, "game");
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

}  // namespace
