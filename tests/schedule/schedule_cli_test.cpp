// The schedule commands of the gatewise tool, run as a user would run them.
#include <gtest/gtest.h>

#include <algorithm>
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

// One line on standard error, exit 2, nothing on standard output.
void expectRefused(const std::vector<std::string>& args) {
  RunResult run = runCli(args);
  std::string shown;
  for (const std::string& arg : args) shown += arg + " ";
  EXPECT_EQ(run.status, 2) << shown;
  EXPECT_EQ(run.out, "") << shown;
  EXPECT_TRUE(run.err.starts_with("gatewise: ")) << shown << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << shown << run.err;
}

TEST(ScheduleCliTest, EditingAnEmptyOrSparseFilePreparesTheWholeWeek) {
  gwtest::TempRoot root;
  std::string empty = root.at("/empty.plist"), sparse = root.at("/sparse.plist");
  ASSERT_TRUE(gw::fs::writeFileAtomically(empty, "<plist version=\"1.0\"><dict/></plist>\n"));
  ASSERT_TRUE(gw::fs::writeFileAtomically(
      sparse,
      "<plist version=\"1.0\"><dict><key>monday</key><array><dict><key>start</key>"
      "<string>12:00:00</string><key>end</key><string>13:00:00</string></dict></array>"
      "</dict></plist>\n"));
  for (const std::string& file : {empty, sparse}) {
    SCOPED_TRACE(file);
    std::string edited = file + ".out";
    ASSERT_EQ(runCliInto(edited, {"curfews", "--locale", "en_US", "set-weekday", "21:00", "07:00",
                                  "--curfews", file}),
              0);
    EXPECT_EQ(runCli({"curfews", "--locale", "en_US", "weekday-times", "--curfews", edited}).out,
              "21:00:00 07:00:00\n");
    gwtest::RunOptions zone{.environment = {{"TZ", "UTC"}}};
    // Friday 5 June 2026 07:00 ends the week's last night; Sunday's eve starts at 21:00.
    EXPECT_EQ(
        runCli({"curfews", "next-free", "--curfews", edited, "--at", "2026-06-05 03:00:00"}, zone)
            .out,
        "2026-06-05 07:00:00\n");
    EXPECT_EQ(
        runCli({"curfews", "next-curfew", "--curfews", edited, "--at", "2026-06-06 12:00:00"}, zone)
            .out,
        "2026-06-07 21:00:00\n");
  }
}

TEST(ScheduleCliTest, BadTimesAndDurationsAreRefused) {
  for (const char* bad : {"abc", "25:70:99", "-1:00:00", "24:00", "12", "12:5", "12:00:60",
                          "1:00:00:00", "", "12:00 ", "+1:00"}) {
    expectRefused({"curfews", "set-weekday", bad, "07:00:00"});
    expectRefused({"curfews", "set-weekend", "21:00:00", bad});
  }
  for (const char* bad : {"nan", "inf", "-1", "-3600", "abc", "1e400"}) {
    expectRefused({"duration", bad});
    expectRefused({"duration", "--short", bad});
  }
  expectRefused({"duration", "--short", "4294967296"});
  // The edges of what is accepted.
  EXPECT_EQ(runCli({"curfews", "set-weekday", "0:00", "23:59:59"}).status, 0);
  EXPECT_EQ(runCli({"duration", "0"}).status, 0);
  EXPECT_EQ(runCli({"duration", "--short", "2147483647"}).out, "24855:03:14\n");
  EXPECT_EQ(runCli({"duration", "3601"}).out, "1 hour and 1 second\n");
  EXPECT_EQ(runCli({"duration", "--short", "--with-seconds", "45"}).out, ":45\n");
  EXPECT_EQ(runCli({"duration", "--short", "90000"}).out, "1:01:00\n");
}

}  // namespace
