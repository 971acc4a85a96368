// Launch enforcement end to end: fanotify marks on the test's own two programs only (never a
// whole mount), a managed user's process (a child with its uid dropped) refused the program off
// the white list and allowed the one on it, root never refused, and execs held by an enforcer
// that is killed let through by the kernel. Skipped where fanotify is unavailable (no
// CAP_SYS_ADMIN, containers, old kernels).
#include <fcntl.h>
#include <gatewise/launch.h>
#include <gatewise/plist.h>
#include <gatewise/status.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "daemon/enforce/launch_enforcer.h"
#include "daemon/manager.h"
#include "daemon/usage/usage_store.h"
#include "support/log_capture.h"
#include "support/temp_root.h"

namespace {

using gw::plist::Value;

constexpr int kExecRefused = 126;
constexpr int kExecFailed = 127;

// Waits for pid, giving the loop (when there is one) the time in between; its exit status, or -1.
int waitFor(pid_t pid, sd_event* loop) {
  for (int round = 0; round < 3000; ++round) {  // bounded at about 30 seconds
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == pid) {
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    if (loop) {
      sd_event_run(loop, 10'000);
    } else {
      ::poll(nullptr, 0, 10);
    }
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  return -1;
}

// Starts program in a child, as uid/gid unless uid is 0; the child exits kExecRefused when execve
// fails with EPERM.
pid_t start(const std::string& program, uid_t uid, gid_t gid) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  if (uid != 0 && (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0)) {
    ::_exit(120);
  }
  char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
  ::execv(program.c_str(), argv);
  ::_exit(errno == EPERM ? kExecRefused : kExecFailed);
}

class LaunchEnforceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    passwd* pw = ::getpwuid(kUid);
    if (!pw) GTEST_SKIP() << "no user with uid 1";
    name_ = pw->pw_name;
    gid_ = pw->pw_gid;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root_.at("/no-bus")).c_str(), 1);
    // The dropped child must reach the programs.
    ::chmod(root_.path().c_str(), 0755);
    allowed_ = program("allowed");
    denied_ = program("denied");
  }
  void TearDown() override { ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

  std::string program(const std::string& name) {
    std::string path = root_.makeFolder("/programs") + "/" + name;
    std::filesystem::copy_file("/bin/true", path);
    ::chmod(path.c_str(), 0755);
    return path;
  }

  gwtest::TempRoot root_;
  gwtest::LogCapture log_{1};
  static constexpr uid_t kUid = 1;
  std::string name_;
  gid_t gid_ = 0;
  std::string allowed_, denied_;
};

TEST_F(LaunchEnforceTest, AManagedUsersProcessIsRefusedWhatIsOffTheWhiteList) {
  root_.writeFile(
      "/Library/Managed Preferences/" + name_ + "/" + kGWApplicationAccessDomain + ".plist",
      *gw::plist::writePropertyList(
          Value::newDictionary(
              {{"gatewiseEnabled", true},
               {"whiteList", Value::newArray({Value::newDictionary({{"path", allowed_}})})}}),
          gw::plist::Format::XML));
  gw::daemon::ManagerOptions options;
  options.serve = false;
  options.databasePath = gw::daemon::defaultUsageDatabasePath();
  options.clock = std::make_shared<gw::daemon::ManualClock>(gw::plist::Date::now());
  std::string error;
  std::unique_ptr<gw::daemon::Manager> manager =
      gw::daemon::Manager::create(std::move(options), &error);
  ASSERT_TRUE(manager) << error;
  if (!manager->apps().enforce({}, {allowed_, denied_}, false, &error)) {
    GTEST_SKIP() << "fanotify is not available here: " << error;
  }
  sd_event* loop = manager->loop();

  EXPECT_EQ(waitFor(start(allowed_, kUid, gid_), loop), 0);
  EXPECT_EQ(waitFor(start(denied_, kUid, gid_), loop), kExecRefused);
  EXPECT_EQ(waitFor(start(denied_, kUid, gid_), loop), kExecRefused);  // from the cache
  EXPECT_EQ(waitFor(start(denied_, 0, 0), loop), 0);                   // root never
  EXPECT_EQ(manager->apps().enforcer()->denied(), 2u);

  // Refused once by decision (the second refusal came from the cache), and shown to the user.
  std::vector<std::string> lines = log_.lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& l) { return l.find("refused") != l.npos; }),
            1);
  std::vector<gw::daemon::StatusItemInfo> items = manager->statusItems(kUid);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].statusKind, gw::kGWStatusKindBlacklisted);
  EXPECT_EQ(items[0].itemName, "denied");
}

TEST_F(LaunchEnforceTest, AMarkedMountOfTheTestsOwnIsEnforcedWhole) {
  std::string mount = root_.makeFolder("/mnt");
  if (::mount("gatewise-test", mount.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
  }
  // Unmounted however the test ends.
  struct Unmount {
    std::string path;
    ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
  } unmount{mount};
  std::string inside = mount + "/program";
  std::filesystem::copy_file("/bin/true", inside);
  ::chmod(inside.c_str(), 0755);
  root_.writeFile(
      "/Library/Managed Preferences/" + name_ + "/" + kGWApplicationAccessDomain + ".plist",
      *gw::plist::writePropertyList(Value::newDictionary({{"gatewiseEnabled", true}}),
                                    gw::plist::Format::XML));
  {
    gw::daemon::ManagerOptions options;
    options.serve = false;
    options.databasePath = gw::daemon::defaultUsageDatabasePath();
    options.clock = std::make_shared<gw::daemon::ManualClock>(gw::plist::Date::now());
    std::string error;
    auto manager = gw::daemon::Manager::create(std::move(options), &error);
    ASSERT_TRUE(manager) << error;
    if (manager->apps().enforce({mount}, {}, false, &error)) {
      EXPECT_EQ(waitFor(start(inside, kUid, gid_), manager->loop()), kExecRefused);
      EXPECT_EQ(waitFor(start(allowed_, kUid, gid_), manager->loop()), 0);  // not on the mount
      EXPECT_EQ(manager->apps().enforcer()->answered(), 1u);
    } else {
      ADD_FAILURE() << error;
    }
  }
}

TEST_F(LaunchEnforceTest, ExecsHeldByAKilledEnforcerGoThrough) {
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  pid_t holder = ::fork();
  if (holder == 0) {
    ::close(pipeFds[0]);
    gw::daemon::LaunchEnforcerOptions options;
    options.files = {denied_};
    std::string error;
    auto enforcer = gw::daemon::LaunchEnforcer::create(nullptr, std::move(options), &error);
    if (!enforcer) ::_exit(1);
    (void)!::write(pipeFds[1], "r", 1);
    // Never answers: waits until an exec is held, says so, and waits to be killed.
    pollfd readable{enforcer->descriptor(), POLLIN, 0};
    ::poll(&readable, 1, 30'000);
    (void)!::write(pipeFds[1], "h", 1);
    ::pause();
    ::_exit(0);
  }
  ::close(pipeFds[1]);
  char said = 0;
  if (::read(pipeFds[0], &said, 1) != 1) {
    ::waitpid(holder, nullptr, 0);
    ::close(pipeFds[0]);
    GTEST_SKIP() << "fanotify is not available here";
  }
  pid_t runner = start(denied_, 0, 0);
  ASSERT_EQ(::read(pipeFds[0], &said, 1), 1);
  EXPECT_EQ(said, 'h');
  int status = 0;
  EXPECT_EQ(::waitpid(runner, &status, WNOHANG), 0) << "the exec is held";
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  ::close(pipeFds[0]);
  EXPECT_EQ(waitFor(runner, nullptr), 0);
}

}  // namespace
