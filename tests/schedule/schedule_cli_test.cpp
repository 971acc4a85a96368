// The schedule commands of the gatewise tool, run as a user would run them.
#include <gtest/gtest.h>

#include <string>

#include "platform/fs/file_io.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gwtest::runCli;
using gwtest::RunResult;

// Runs the CLI and saves its standard output in path.
int runCliInto(const std::string& path, const std::vector<std::string>& args) {
  RunResult run = runCli(args);
  if (run.status == 0 && !gw::fs::writeFileAtomically(path, run.out)) return -1;
  return run.status;
}

TEST(ScheduleCliTest, WeekPrintsTheLocaleWorkWeek) {
  RunResult run = runCli({"week", "--locale", "fa_IR"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out,
            "first-workday 5 saturday\nlast-workday 3 thursday\nfirst-weekend-day 4 friday\n"
            "last-weekend-day 4 friday\nwork-week-length 6\nweekend-length 1\n");
}

TEST(ScheduleCliTest, CurfewFilesAreEditedAndQueriedInTheGivenZone) {
  gwtest::TempRoot root;
  std::string weekday = root.at("/weekday.plist"), both = root.at("/both.plist");
  ASSERT_EQ(
      runCliInto(weekday, {"curfews", "--locale", "he_IL", "set-weekday", "21:00:00", "07:00:00"}),
      0);
  ASSERT_EQ(runCliInto(both, {"curfews", "--locale", "he_IL", "set-weekend", "23:00", "9:00",
                              "--curfews", weekday}),
            0);
  EXPECT_EQ(runCli({"curfews", "--locale", "he_IL", "weekday-times", "--curfews", both}).out,
            "21:00:00 07:00:00\n");
  EXPECT_EQ(runCli({"curfews", "--locale", "he_IL", "weekend-times", "--curfews", both}).out,
            "23:00:00 09:00:00\n");
  EXPECT_EQ(runCli({"curfews", "--locale", "he_IL", "weekday-times", "--curfews", weekday}).out,
            "21:00:00 07:00:00\n");
  EXPECT_EQ(runCli({"curfews", "--locale", "he_IL", "weekend-times", "--curfews", weekday}).out,
            "none none\n");

  // Thursday 26 March 2026 is the last work day in Israel; the weekend curfew starts Thursday
  // evening (its eve) at 23:00, and Berlin's clocks go forward early on Sunday 29 March.
  gwtest::RunOptions zone{.environment = {{"TZ", "Europe/Berlin"}}};
  EXPECT_EQ(
      runCli({"curfews", "next-curfew", "--curfews", both, "--at", "2026-03-26 12:00:00"}, zone)
          .out,
      "2026-03-26 23:00:00\n");
  EXPECT_EQ(
      runCli({"curfews", "next-free", "--curfews", both, "--at", "2026-03-28 23:30:00"}, zone).out,
      "2026-03-29 07:00:00\n");
  RunResult yes =
      runCli({"curfews", "is-curfewed", "--curfews", both, "--at", "2026-03-29 01:00:00"}, zone);
  EXPECT_EQ(yes.status, 0);
  EXPECT_EQ(yes.out, "yes\n");
  RunResult no =
      runCli({"curfews", "is-curfewed", "--curfews", both, "--at", "2026-03-29 12:00:00"}, zone);
  EXPECT_EQ(no.status, 1);
  EXPECT_EQ(no.out, "no\n");

  EXPECT_EQ(runCli({"curfews", "next-free", "--curfews", root.at("/missing.plist")}).status, 2);
  EXPECT_EQ(runCli({"curfews", "next-free", "--curfews", both, "--at", "tomorrow"}).status, 2);
}

TEST(ScheduleCliTest, DurationTexts) {
  EXPECT_EQ(runCli({"duration", "3601"}).out, "1 hour and 1 second\n");
  EXPECT_EQ(runCli({"duration", "--short", "--with-seconds", "45"}).out, ":45\n");
  EXPECT_EQ(runCli({"duration", "--short", "90000"}).out, "1:01:00\n");
}

}  // namespace
