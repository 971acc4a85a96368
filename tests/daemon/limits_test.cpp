// Reading the computer limit and the overrides as root: strict checks of hostile preferences, and
// rereading only when a file changed.
#include <gatewise/plist.h>
#include <gtest/gtest.h>

#include "daemon/limits/computer_limit.h"
#include "daemon/limits/overrides_file.h"
#include "daemon_test_support.h"
#include "support/log_capture.h"
#include "support/temp_root.h"

namespace {

using gw::daemon::parseComputerLimit;
using gw::plist::Value;
using gwtest::daemon::Curfew;
using gwtest::daemon::timeLimits;

Value withComputerKey(const std::string& key, Value value) {
  Value prefs = timeLimits({{"monday", "21:00:00", "23:59:59"}}, {{3600, 0, 6}});
  prefs.dictionary()->get("limits-list").array()->at(0).dictionary()->set(key, std::move(value));
  return prefs;
}

Value curfewsOf(std::vector<Curfew> ranges) {
  Value prefs = timeLimits(ranges, {});
  return prefs.dictionary()->get("limits-list").array()->at(0).dictionary()->get("curfews");
}

TEST(ComputerLimitTest, HostileStoredFormsAreRefusedWithAReason) {
  struct Bad {
    const char* name;
    Value prefs;
    const char* problem;
  };
  const std::vector<Bad> cases = {
      {"top level not a dictionary", Value::newArray(), "not a dictionary"},
      {"list not an array", Value::newDictionary({{"limits-list", "x"}}), "not an array"},
      {"time out of range",
       withComputerKey("curfews", curfewsOf({{"monday", "25:00:00", "26:00:00"}})), "out of range"},
      {"unsorted curfews",
       withComputerKey("curfews", curfewsOf({{"monday", "21:00:00", "22:00:00"},
                                             {"monday", "08:00:00", "09:00:00"}})),
       "unsorted"},
      {"range ending before it starts",
       withComputerKey("curfews", curfewsOf({{"monday", "22:00:00", "21:00:00"}})), "ends before"},
      {"unknown day", withComputerKey("curfews", curfewsOf({{"Monday", "21:00:00", "22:00:00"}})),
       "unknown curfew day"},
      {"allowance of a string",
       withComputerKey("allowances",
                       Value::newArray({Value::newDictionary({{"timeLimitSeconds", "7200"}})})),
       "not an integer"},
      {"allowance day out of range",
       withComputerKey("allowances", Value::newArray({Value::newDictionary({{"toDay", 9}})})),
       "day is out of range"},
      {"allowance beyond a week",
       withComputerKey("allowances",
                       Value::newArray({Value::newDictionary({{"timeLimitSeconds", 900000}})})),
       "out of range"},
  };
  for (const Bad& c : cases) {
    SCOPED_TRACE(c.name);
    auto parsed = parseComputerLimit(c.prefs);
    EXPECT_FALSE(parsed.limit.has_value());
    EXPECT_NE(parsed.problem.find(c.problem), std::string::npos) << parsed.problem;
  }
}

TEST(ComputerLimitTest, OnlyAnEnabledComputerItemWithSomethingToEnforceLimits) {
  auto parsed = parseComputerLimit(timeLimits({{"monday", "21:00:00", "23:59:59"}}, {{60, 0, 6}}));
  ASSERT_TRUE(parsed.limit);
  EXPECT_TRUE(parsed.limit->curfews);
  ASSERT_EQ(parsed.limit->allowances.size(), 1u);
  EXPECT_EQ(parsed.limit->allowances[0].seconds, 60);

  EXPECT_FALSE(parseComputerLimit(withComputerKey("enabled", false)).limit);
  EXPECT_FALSE(parseComputerLimit(withComputerKey("enabled", "yes")).limit);
  // Inactive allowances are not enforced; the curfew still is.
  auto inactive = parseComputerLimit(withComputerKey("allowancesActive", false));
  ASSERT_TRUE(inactive.limit);
  EXPECT_TRUE(inactive.limit->allowances.empty());
  EXPECT_TRUE(parseComputerLimit(Value::newDictionary()).problem.empty());
  EXPECT_FALSE(parseComputerLimit(Value::newDictionary()).limit);
}

TEST(ComputerLimitTest, CacheRereadsChangedFilesAndLogsRefusalsOnce) {
  gwtest::TempRoot root;
  gwtest::LogCapture log(0);
  const std::string file = "/Library/Managed Preferences/kid/com.morvane.gatewise.timelimits.plist";
  gw::daemon::ComputerLimitCache cache;
  EXPECT_EQ(cache.limitFor("kid"), nullptr);

  root.writeFile(
      file, *gw::plist::writePropertyList(timeLimits({}, {{3600, 0, 6}}), gw::plist::Format::XML));
  const gw::daemon::ComputerLimit* limit = cache.limitFor("kid");
  ASSERT_NE(limit, nullptr);
  EXPECT_EQ(limit->allowances[0].seconds, 3600);

  root.writeFile(file, "<plist><dict><key>limits-list</key><string>x</string></dict></plist>");
  EXPECT_EQ(cache.limitFor("kid"), nullptr);
  EXPECT_EQ(cache.limitFor("kid"), nullptr);
  int refusals = 0;
  for (const std::string& line : log.lines()) {
    refusals += line.find("Ignoring the time limits of kid") != std::string::npos;
  }
  EXPECT_EQ(refusals, 1);

  // A huge file is refused unread; a link is not followed.
  root.writeFile(file, std::string(gw::daemon::kMaxLimitsFileSize + 1, ' '));
  EXPECT_EQ(cache.limitFor("kid"), nullptr);
  EXPECT_TRUE(log.contains("larger than"));
  EXPECT_EQ(cache.limitFor("../kid"), nullptr);
}

TEST(OverridesTest, TodaysComputerGrantSumsLiveEntries) {
  auto entry = [](Value duration, bool expired) {
    return Value::newDictionary({{"duration", std::move(duration)}, {"expired", expired}});
  };
  auto file = [&](Value today) {
    return Value::newDictionary(
        {{"__COMPUTER__",
          Value::newDictionary({{"2026-01-05", std::move(today)},
                                {"2026-01-04", Value::newArray({entry(999, false)})}})},
         {"com.example.game",
          Value::newDictionary({{"2026-01-05", Value::newArray({entry(77, false)})}})}});
  };
  using gw::daemon::computerGrantOn;
  auto g = computerGrantOn(file(Value::newArray({entry(1800, false), entry(3600, false)})),
                           "2026-01-05");
  EXPECT_EQ(g.seconds, 5400);
  EXPECT_FALSE(g.unlimited);
  g = computerGrantOn(file(Value::newArray({entry(1800, true), entry(600, false)})), "2026-01-05");
  EXPECT_EQ(g.seconds, 600);
  g = computerGrantOn(file(Value::newArray({entry(-1, false), entry(600, false)})), "2026-01-05");
  EXPECT_TRUE(g.unlimited);
  // Wrong types read as nothing granted.
  g = computerGrantOn(file("a string"), "2026-01-05");
  EXPECT_EQ(g.seconds, 0);
  g = computerGrantOn(file(Value::newArray({entry("3600", false), Value(5), entry(-7, false)})),
                      "2026-01-05");
  EXPECT_EQ(g.seconds, 0);
  EXPECT_EQ(computerGrantOn(Value::newArray(), "2026-01-05").seconds, 0);
}

}  // namespace
