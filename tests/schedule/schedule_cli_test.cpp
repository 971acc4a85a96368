// The schedule commands of the gatewise tool, run as a user would run them.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "support/temp_root.h"

namespace {

struct CliRun {
  int status = -1;
  std::string output;
};

// environment: "NAME=value " assignments for the command.
CliRun gatewise(const std::string& arguments, const std::string& environment = "") {
  std::string command =
      environment + std::string(GATEWISE_TEST_CLI) + " " + arguments + " 2>/dev/null";
  CliRun run;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return run;
  char buffer[4096];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) run.output.append(buffer, n);
  int status = ::pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

TEST(ScheduleCliTest, WeekPrintsTheLocaleWorkWeek) {
  CliRun run = gatewise("week --locale fa_IR");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output,
            "first-workday 5 saturday\nlast-workday 3 thursday\nfirst-weekend-day 4 friday\n"
            "last-weekend-day 4 friday\nwork-week-length 6\nweekend-length 1\n");
}

TEST(ScheduleCliTest, CurfewFilesAreEditedAndQueriedInTheGivenZone) {
  gwtest::TempRoot root;
  std::string weekday = root.at("/weekday.plist"), both = root.at("/both.plist");
  ASSERT_EQ(gatewise("curfews --locale he_IL set-weekday 21:00:00 07:00:00 > " + weekday).status,
            0);
  ASSERT_EQ(
      gatewise("curfews --locale he_IL set-weekend 23:00 9:00 --curfews " + weekday + " > " + both)
          .status,
      0);
  EXPECT_EQ(gatewise("curfews --locale he_IL weekday-times --curfews " + both).output,
            "21:00:00 07:00:00\n");
  EXPECT_EQ(gatewise("curfews --locale he_IL weekend-times --curfews " + both).output,
            "23:00:00 09:00:00\n");
  EXPECT_EQ(gatewise("curfews --locale he_IL weekday-times --curfews " + weekday).output,
            "21:00:00 07:00:00\n");
  EXPECT_EQ(gatewise("curfews --locale he_IL weekend-times --curfews " + weekday).output,
            "none none\n");

  // Thursday 26 March 2026 is the last work day in Israel; the weekend curfew starts Thursday
  // evening (its eve) at 23:00, and Berlin's clocks go forward early on Sunday 29 March.
  std::string zone = "TZ=Europe/Berlin ";
  EXPECT_EQ(gatewise("curfews next-curfew --curfews " + both + " --at '2026-03-26 12:00:00'", zone)
                .output,
            "2026-03-26 23:00:00\n");
  EXPECT_EQ(
      gatewise("curfews next-free --curfews " + both + " --at '2026-03-28 23:30:00'", zone).output,
      "2026-03-29 07:00:00\n");
  CliRun yes =
      gatewise("curfews is-curfewed --curfews " + both + " --at '2026-03-29 01:00:00'", zone);
  EXPECT_EQ(yes.status, 0);
  EXPECT_EQ(yes.output, "yes\n");
  CliRun no =
      gatewise("curfews is-curfewed --curfews " + both + " --at '2026-03-29 12:00:00'", zone);
  EXPECT_EQ(no.status, 1);
  EXPECT_EQ(no.output, "no\n");

  EXPECT_EQ(gatewise("curfews next-free --curfews " + root.at("/missing.plist")).status, 2);
  EXPECT_EQ(gatewise("curfews next-free --curfews " + both + " --at tomorrow").status, 2);
}

TEST(ScheduleCliTest, DurationTexts) {
  EXPECT_EQ(gatewise("duration 3601").output, "1 hour and 1 second\n");
  EXPECT_EQ(gatewise("duration --short --with-seconds 45").output, ":45\n");
  EXPECT_EQ(gatewise("duration --short 90000").output, "1:01:00\n");
}

}  // namespace
