// The process watch fed by the kernel's process-events connector: a program a watched user starts
// is seen, and forgotten when it ends. Runs only where the connector is available (root).
#include "daemon/programs/program_watch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "support/process.h"

namespace {

constexpr uid_t kNobody = 65534;

TEST(ProgramWatchTest, TheKernelReportsExecsAndExitsOfWatchedUsers) {
  if (::geteuid() != 0) GTEST_SKIP() << "the process connector needs root";
  sd_event* loop = nullptr;
  ASSERT_GE(sd_event_new(&loop), 0);
  std::vector<uid_t> told;
  auto watch = gw::daemon::ProgramWatch::start(
      loop, [](uid_t uid) { return uid == kNobody; }, [&](uid_t uid) { told.push_back(uid); });
  if (!watch->connected()) {
    watch.reset();
    sd_event_unref(loop);
    GTEST_SKIP() << "no process connector here";
  }
  auto runsSleep = [&] {
    auto programs = watch->programsOf(kNobody);
    return std::any_of(programs.begin(), programs.end(), [](const auto& p) {
      return p.path.size() >= 6 && p.path.compare(p.path.size() - 6, 6, "/sleep") == 0;
    });
  };
  {
    gwtest::ChildProcess child(
        {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "sleep", "30"});
    for (int i = 0; i < 200 && !runsSleep(); ++i) sd_event_run(loop, 50000);
    EXPECT_TRUE(runsSleep());
    EXPECT_NE(std::find(told.begin(), told.end(), kNobody), told.end());
  }
  for (int i = 0; i < 200 && runsSleep(); ++i) sd_event_run(loop, 50000);
  EXPECT_FALSE(runsSleep());
  // Root's own programs are never followed.
  EXPECT_TRUE(watch->programsOf(0).empty());
  watch.reset();
  sd_event_unref(loop);
}

}  // namespace
