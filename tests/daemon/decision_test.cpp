// The login decision, driven with fixed dates: curfews, allowances, grants, day boundaries and
// daylight-saving days. 2026-01-05 is a Monday.
#include <gtest/gtest.h>

#include <map>

#include "daemon/decision/login_decision.h"
#include "daemon_test_support.h"
#include "support/time_zone.h"

namespace {

using gw::daemon::DayUsage;
using gw::daemon::decide;
using gw::daemon::Decision;
using gw::daemon::EndCause;
using gw::daemon::Grant;
using gw::daemon::parseComputerLimit;
using gwtest::daemon::Allowance;
using gwtest::daemon::Curfew;
using gwtest::daemon::local;
using gwtest::daemon::timeLimits;

// Monday evening curfew into Tuesday morning, and every night the same.
const std::vector<Curfew> kWeekNights = {
    {"monday", "21:00:00", "23:59:59"},
    {"tuesday", "00:00:00", "07:00:00"},
    {"tuesday", "21:00:00", "23:59:59"},
    {"wednesday", "00:00:00", "07:00:00"},
};
const std::vector<Allowance> kTwoHoursDaily = {{7200, 0, 6}};

struct Case {
  const char* name;
  std::vector<Curfew> curfews;
  std::vector<Allowance> allowances;
  gw::plist::Date now;
  std::map<std::string, DayUsage> usage;
  Grant grant;
  gw::GWLoginReason reason;
  std::int32_t seconds;
  EndCause cause = EndCause::None;
};

TEST(LoginDecisionTest, AnswersFromCurfewsAllowancesGrantsAndUsage) {
  gwtest::ScopedTimeZone zone("Europe/Berlin");
  // clang-format off
  const std::vector<Case> cases = {
      {"before the curfew: until it starts", kWeekNights, {}, local(2026, 1, 5, 20, 30), {}, {},
       gw::kGWLoginAllowed, 1800, EndCause::Curfew},
      {"inside the curfew: until it ends the next morning", kWeekNights, {},
       local(2026, 1, 5, 22, 0), {}, {}, gw::kGWLoginCurfew, 9 * 3600},
      {"allowance partly used", {}, kTwoHoursDaily, local(2026, 1, 5, 10, 0),
       {{"2026-01-05", {5400, 0}}}, {}, gw::kGWLoginAllowed, 1800, EndCause::Allowance},
      {"allowance used up: until midnight", {}, kTwoHoursDaily, local(2026, 1, 5, 10, 0),
       {{"2026-01-05", {7200, 0}}}, {}, gw::kGWLoginAllowanceUsedUp, 14 * 3600},
      {"zero allowance today: until the next day with time", {}, {{0, 0, 0}, {3600, 1, 6}},
       local(2026, 1, 5, 10, 0), {}, {}, gw::kGWLoginNoTimeToday, 14 * 3600},
      {"a grant restores used-up time", {}, kTwoHoursDaily, local(2026, 1, 5, 10, 0),
       {{"2026-01-05", {7200, 0}}}, {1800, false}, gw::kGWLoginAllowed, 1800, EndCause::Allowance},
      {"a grant lets the user in during a curfew", kWeekNights, {}, local(2026, 1, 5, 22, 0), {},
       {3600, false}, gw::kGWLoginAllowed, 3600, EndCause::Curfew},
      {"curfew time already used from the grant", kWeekNights, {}, local(2026, 1, 5, 22, 0),
       {{"2026-01-05", {3000, 3000}}}, {3600, false}, gw::kGWLoginAllowed, 600, EndCause::Curfew},
      {"an unlimited grant lasts until midnight, where the curfew goes on", kWeekNights, {},
       local(2026, 1, 5, 22, 0), {}, {0, true}, gw::kGWLoginAllowed, 7200, EndCause::Curfew},
      {"use across midnight takes the next day's allowance", {}, kTwoHoursDaily,
       local(2026, 1, 5, 23, 0), {}, {}, gw::kGWLoginAllowed, 3 * 3600, EndCause::Allowance},
      {"allowance running out where a curfew starts is the curfew's end", kWeekNights,
       kTwoHoursDaily, local(2026, 1, 5, 20, 0), {{"2026-01-05", {3600, 0}}}, {},
       gw::kGWLoginAllowed, 3600, EndCause::Curfew},
      {"weekly allowance less the earlier days of the week", {}, {{5 * 3600, 0, 6, true}},
       local(2026, 1, 6, 10, 0), {{"2026-01-05", {3 * 3600, 0}}}, {}, gw::kGWLoginAllowed, 7200,
       EndCause::Allowance},
      {"the smallest allowance in effect holds", {}, {{7200, 0, 6}, {600, 0, 0}},
       local(2026, 1, 5, 10, 0), {}, {}, gw::kGWLoginAllowed, 600, EndCause::Allowance},
      {"curfew all week: refused, no end in sight",
       {{"sunday", "00:00:00", "23:59:59"}, {"monday", "00:00:00", "23:59:59"},
        {"tuesday", "00:00:00", "23:59:59"}, {"wednesday", "00:00:00", "23:59:59"},
        {"thursday", "00:00:00", "23:59:59"}, {"friday", "00:00:00", "23:59:59"},
        {"saturday", "00:00:00", "23:59:59"}},
       {}, local(2026, 1, 5, 10, 0), {}, {}, gw::kGWLoginCurfew, 0},
      {"half a second left counts as nothing", {}, kTwoHoursDaily, local(2026, 1, 5, 10, 0),
       {{"2026-01-05", {7199.5, 0}}}, {}, gw::kGWLoginAllowanceUsedUp, 14 * 3600},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto parsed = parseComputerLimit(timeLimits(c.curfews, c.allowances));
    ASSERT_TRUE(parsed.limit.has_value()) << parsed.problem;
    auto usage = [&](const std::string& day) {
      auto it = c.usage.find(day);
      return it == c.usage.end() ? DayUsage{} : it->second;
    };
    Decision d = decide(&*parsed.limit, c.now, usage, c.grant);
    EXPECT_EQ(d.reason, c.reason);
    EXPECT_EQ(d.seconds(c.now), c.seconds);
    if (c.reason == gw::kGWLoginAllowed) {
      EXPECT_EQ(d.endCause, c.cause);
    }
  }
}

TEST(LoginDecisionTest, WithoutLimitsEveryoneIsAllowedWithoutEnd) {
  Decision d =
      decide(nullptr, local(2026, 1, 5, 3, 0), [](const std::string&) { return DayUsage{}; }, {});
  EXPECT_TRUE(d.allowed());
  EXPECT_FALSE(d.end.has_value());
  EXPECT_EQ(d.seconds(local(2026, 1, 5, 3, 0)), 0);
}

TEST(LoginDecisionTest, DaylightSavingDaysAreShorterOrLongerInRealSeconds) {
  gwtest::ScopedTimeZone zone("America/New_York");
  auto none = [](const std::string&) { return DayUsage{}; };
  // 2026-03-08: clocks jump from 02:00 to 03:00. Sunday morning curfew until 07:00.
  auto curfew = parseComputerLimit(timeLimits({{"sunday", "00:00:00", "07:00:00"}}, {}));
  ASSERT_TRUE(curfew.limit);
  gw::plist::Date night = local(2026, 3, 8, 0, 30);
  Decision d = decide(&*curfew.limit, night, none, {});
  EXPECT_EQ(d.reason, gw::kGWLoginCurfew);
  EXPECT_EQ(d.seconds(night), 5 * 3600 + 1800);  // 6.5 hours on the wall clock

  // Two hours from midnight on that day end at 03:00 on the wall clock.
  auto allowance = parseComputerLimit(timeLimits({}, kTwoHoursDaily));
  ASSERT_TRUE(allowance.limit);
  gw::plist::Date evening = local(2026, 3, 7, 23, 0);
  d = decide(&*allowance.limit, evening, none, {});
  EXPECT_EQ(d.seconds(evening), 3 * 3600);
  ASSERT_TRUE(d.end);
  EXPECT_EQ(gw::time::localComponents(*d.end).hour, 3);

  // Used up on 2026-11-01 (clocks go back at 02:00): 25 real hours until the next midnight from
  // the day's start, 24.5 from 00:30.
  gw::plist::Date fallBack = local(2026, 11, 1, 0, 30);
  d = decide(&*allowance.limit, fallBack,
             [](const std::string& day) {
               return day == "2026-11-01" ? DayUsage{7200, 0} : DayUsage{};
             },
             {});
  EXPECT_EQ(d.reason, gw::kGWLoginAllowanceUsedUp);
  EXPECT_EQ(d.seconds(fallBack), 24 * 3600 + 1800);
}

TEST(LoginDecisionTest, CurfewSecondsOfAStretchCrossingIntoACurfew) {
  gwtest::ScopedTimeZone zone("Europe/Berlin");
  auto parsed = parseComputerLimit(timeLimits(kWeekNights, {}));
  ASSERT_TRUE(parsed.limit);
  const gw::GWCurfews* curfews = parsed.limit->curfews.get();
  EXPECT_DOUBLE_EQ(
      gw::daemon::curfewSecondsBetween(curfews, local(2026, 1, 5, 20, 0), local(2026, 1, 5, 22, 0)),
      3600);
  EXPECT_DOUBLE_EQ(
      gw::daemon::curfewSecondsBetween(curfews, local(2026, 1, 6, 6, 0), local(2026, 1, 6, 8, 0)),
      3600);
  EXPECT_DOUBLE_EQ(
      gw::daemon::curfewSecondsBetween(nullptr, local(2026, 1, 6, 6, 0), local(2026, 1, 6, 8, 0)),
      0);
}

}  // namespace
