// Launch enforcement: what an enforced exec costs beside an unmonitored one, and the decision
// itself with a warm cache, in one run.
//
// Two copies of the same small static program sit in a temporary system root; the enforcer marks
// only the second (an inode mark, so nothing else on the machine is watched). Each exec is a fork,
// a drop to a managed user's uid, execve and wait, done the same way for both copies; the
// enforcer's loop answers on its own thread from the white list that allows the second copy, so
// after the first exec every decision comes from the cache. The warm decision is timed apart: the
// work the enforcer does per event (the process's uid from /proc, the file's identity, the cached
// decision). Goals: under 10% added to execve, under 5 µs per warm decision.
//
// Usage: launch_bench [EXECS] [DECISIONS]   (defaults 2000 and 200000). Needs root (fanotify and
// the uid drop); prints a line and exits 0 without measuring where fanotify is unavailable.
#include <fcntl.h>
#include <gatewise/launch.h>
#include <gatewise/plist.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "daemon/enforce/launch_enforcer.h"
#include "daemon/manager.h"
#include "daemon/usage/usage_store.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr uid_t kUid = 1;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// fork, drop to uid, execve program, wait: the status of the child.
int runAs(const std::string& program, uid_t uid, gid_t gid) {
  pid_t pid = ::fork();
  if (pid == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) ::_exit(120);
    char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
    ::execv(program.c_str(), argv);
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Seconds per exec of program, over n execs.
double perExec(const std::string& program, gid_t gid, int n) {
  auto start = Clock::now();
  for (int i = 0; i < n; ++i) {
    if (runAs(program, kUid, gid) != 0) {
      std::fprintf(stderr, "launch_bench: %s did not run\n", program.c_str());
      std::exit(1);
    }
  }
  return secondsSince(start) / n;
}

}  // namespace

int main(int argc, char** argv) {
  int execs = argc > 1 ? std::atoi(argv[1]) : 2000;
  int decisions = argc > 2 ? std::atoi(argv[2]) : 200000;
  if (execs < 1 || decisions < 1) {
    std::fprintf(stderr, "usage: launch_bench [EXECS>0] [DECISIONS>0]\n");
    return 2;
  }
  passwd* pw = ::getpwuid(kUid);
  if (::geteuid() != 0 || !pw) {
    std::printf("launch_bench: skipped (needs root and a user with uid 1)\n");
    return 0;
  }
  std::string user = pw->pw_name;
  gid_t gid = pw->pw_gid;

  std::string root = (std::filesystem::temp_directory_path() / "gatewise-launch-XXXXXX").string();
  if (!::mkdtemp(root.data())) return 1;
  ::chmod(root.c_str(), 0755);
  ::setenv("GATEWISE_ROOT", root.c_str(), 1);
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root + "/no-bus").c_str(), 1);
  std::string plain = root + "/plain", enforced = root + "/enforced";
  std::filesystem::copy_file(LAUNCH_BENCH_EXIT, plain);
  std::filesystem::copy_file(LAUNCH_BENCH_EXIT, enforced);
  ::chmod(plain.c_str(), 0755);
  ::chmod(enforced.c_str(), 0755);
  std::string folder = root + "/Library/Managed Preferences/" + user;
  std::filesystem::create_directories(folder);
  using gw::plist::Value;
  gw::plist::writePropertyListFile(
      folder + "/" + kGWApplicationAccessDomain + ".plist",
      Value::newDictionary(
          {{"gatewiseEnabled", true},
           {"whiteList", Value::newArray({Value::newDictionary({{"path", enforced}})})}}),
      gw::plist::Format::XML);

  gw::daemon::ManagerOptions options;
  options.serve = false;
  options.databasePath = gw::daemon::defaultUsageDatabasePath();
  std::string error;
  auto manager = gw::daemon::Manager::create(std::move(options), &error);
  int result = 0;
  if (!manager) {
    std::fprintf(stderr, "launch_bench: %s\n", error.c_str());
    result = 1;
  } else if (!manager->apps().enforce({}, {enforced}, false, &error)) {
    std::printf("launch_bench: skipped (fanotify unavailable: %s)\n", error.c_str());
  } else {
    std::atomic<bool> stop{false};
    std::thread loop([&] {
      while (!stop) sd_event_run(manager->loop(), 50'000);
    });
    perExec(plain, gid, 20);  // warm-up, and the first (uncached) decision
    perExec(enforced, gid, 20);
    double plainSeconds = perExec(plain, gid, execs);
    double enforcedSeconds = perExec(enforced, gid, execs);
    stop = true;
    loop.join();

    // The enforcer's work per event, with a warm cache.
    gw::fs::UniqueFd fd(::open(enforced.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    ::fstat(fd.get(), &st);
    gw::daemon::ExecFile file{fd.get(), st.st_dev, st.st_ino,
                              std::int64_t(st.st_ctim.tv_sec) * 1'000'000'000 + st.st_ctim.tv_nsec};
    manager->apps().allowExec(kUid, file);
    auto start = Clock::now();
    bool allowed = true;
    for (int i = 0; i < decisions; ++i) {
      allowed &= gw::daemon::realUidOf(::getpid()).has_value();
      struct stat again {};
      ::fstat(fd.get(), &again);
      allowed &= manager->apps().allowExec(kUid, file);
    }
    double decisionSeconds = secondsSince(start) / decisions;
    start = Clock::now();
    for (int i = 0; i < decisions; ++i) allowed &= gw::daemon::realUidOf(::getpid()).has_value();
    double uidSeconds = secondsSince(start) / decisions;

    std::printf("exec, unmonitored:         %8.1f us\n", plainSeconds * 1e6);
    std::printf("exec, enforced (warm):     %8.1f us  (%+.1f%%, goal < +10%%)\n",
                enforcedSeconds * 1e6, (enforcedSeconds / plainSeconds - 1) * 100);
    std::printf("decision, warm cache:      %8.2f us  (%.0f per second, goal < 5 us)%s\n",
                decisionSeconds * 1e6, 1 / decisionSeconds, allowed ? "" : "  [REFUSED?]");
    std::printf("  of which the uid from /proc: %5.2f us\n", uidSeconds * 1e6);
    std::printf("enforced execs answered:   %8llu\n",
                (unsigned long long)manager->apps().enforcer()->answered());
  }
  manager.reset();
  std::filesystem::remove_all(root);
  return result;
}
