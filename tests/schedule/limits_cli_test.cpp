// The limits, overrides and authorize-login commands, run as a separate program.
#include <gatewise/core.h>
#include <gatewise/notifications.h>
#include <gatewise/plist.h>
#include <gatewise/runloop.h>
#include <gatewise/schedule/limit_item.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>

#include "support/bus_fixture.h"
#include "support/polkit_standin.h"
#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace gw {
namespace {

using namespace std::chrono_literals;
using gwtest::runCli;
using plist::Value;

class LimitsCliTest : public ::testing::Test {
 protected:
  LimitsCliTest() {
    gwtest::sharedPrivateBus();
    root_.makeFolder("/Library/Application Support/Morvane/Tutela/Users");
  }

  std::string limitsFile(const std::string& user) const {
    return root_.at("/Library/Managed Preferences/" + user +
                    "/com.morvane.gatewise.timelimits.plist");
  }
  Value readLimits(const std::string& user) const {
    plist::ReadResult read = plist::readPropertyListFile(limitsFile(user));
    EXPECT_TRUE(read) << read.error;
    return read ? *read.value : Value();
  }
  std::string writeCurfews() const {
    auto curfews = GWCurfews::curfews();
    curfews->addTimeRange(GWTimeRange::timeRangeWithStartTime(GWTime::initWithHour(21, 0, 0),
                                                              GWTime::initWithHour(23, 59, 59)),
                          "monday");
    std::string path = root_.at("/curfews.plist");
    EXPECT_TRUE(
        plist::writePropertyListFile(path, curfews->plistRepresentation(), plist::Format::XML));
    return path;
  }
  // A bad command: exit 2 and exactly one line on standard error.
  static void expectRefused(const std::vector<std::string>& args) {
    gwtest::RunResult run = runCli(args);
    EXPECT_EQ(run.status, 2) << args[1] << " " << run.out;
    EXPECT_TRUE(run.err.starts_with("gatewise: ")) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }

  gwtest::TempRoot root_;
};

TEST_F(LimitsCliTest, SetCreatesTheFileAndTheOtherCommandsReadIt) {
  std::string curfews = writeCurfews();
  gwtest::RunResult set = runCli({"limits", "set", "kid", "computer", "--enable",
                                  "--weekday-allowance", "7200", "--curfews", curfews});
  ASSERT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(set.out, "__COMPUTER__ computer 1 Computer\n");
  ASSERT_EQ(runCli({"limits", "set", "kid", "games", "--weekend-allowance", "3600"}).status, 0);

  struct stat st;
  ASSERT_EQ(::stat(limitsFile("kid").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(st.st_uid, ::getuid());

  gwtest::RunResult list = runCli({"limits", "list", "kid"});
  EXPECT_EQ(list.out, "__COMPUTER__ computer 1 Computer\n__GAMES__ group 0 Games\n");
  EXPECT_EQ(runCli({"limits", "describe", "kid", "__COMPUTER__"}).out,
            "Allowances and curfews set\n");
  EXPECT_EQ(runCli({"limits", "describe", "kid", "__GAMES__"}).out,
            "No managed items\nAllowances set\n");

  // What the library reads is what `show` prints.
  GWLimitItemRef computer = GWLimitItem::computerLimitForUser("kid");
  ASSERT_TRUE(computer);
  EXPECT_TRUE(computer->enabled());
  EXPECT_TRUE(computer->curfews()->hasCurfews());
  ASSERT_TRUE(computer->weekdayAllowance());
  EXPECT_EQ(computer->weekdayAllowance()->timeLimitSeconds(), 7200);
  gwtest::RunResult show = runCli({"limits", "show", "kid", "__COMPUTER__"});
  plist::ReadResult shown = plist::readPropertyList(show.out);
  ASSERT_TRUE(shown) << show.out;
  EXPECT_EQ(*shown.value, Value(computer->plistRepresentation()));
  plist::ReadResult all = plist::readPropertyList(runCli({"limits", "show", "kid"}).out);
  ASSERT_TRUE(all && all.value->isArray());
  EXPECT_EQ(all.value->array()->size(), 2u);

  // Editing again changes the same item rather than adding one.
  ASSERT_EQ(runCli({"limits", "set", "kid", "computer", "--disable", "--weekday-allowance", "none"})
                .status,
            0);
  EXPECT_EQ(runCli({"limits", "list", "kid"}).out,
            "__COMPUTER__ computer 0 Computer\n__GAMES__ group 0 Games\n");
  EXPECT_EQ(runCli({"limits", "describe", "kid", "__COMPUTER__"}).out, "\n");
}

TEST_F(LimitsCliTest, SetEditsTheLastMatchAndKeepsOtherEntriesAsStored) {
  Value odd = Value::newDictionary({{"itemType", std::string(kGWLimitTypeGroup)},
                                    {"appList", Value::newArray({1})},
                                    {"mystery", plist::Data{1, 2, 3}}});
  auto program = [](const char* name) {
    return Value::newDictionary({{"itemType", std::string(kGWLimitTypeProgram)},
                                 {"bundleID", "org.example.app"},
                                 {"name", name}});
  };
  Value list = Value::newArray({program("First"), odd, "junk", program("Second")});
  root_.writeFile(
      "/Library/Managed Preferences/kid/com.morvane.gatewise.timelimits.plist",
      *plist::writePropertyList(Value::newDictionary({{"limits-list", list}, {"other", "kept"}}),
                                plist::Format::Binary));
  gwtest::RunResult set = runCli({"limits", "set", "kid", "org.example.app", "--enable"});
  ASSERT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(set.out, "org.example.app program 1 Second\n");

  Value stored = readLimits("kid");
  EXPECT_EQ(stored.dictionary()->get("other"), Value("kept"));
  const plist::Array& items = *stored.dictionary()->get("limits-list").array();
  ASSERT_EQ(items.size(), 4u);
  EXPECT_EQ(items[0], program("First"));
  EXPECT_EQ(items[1], odd);
  EXPECT_EQ(items[2], Value("junk"));
  EXPECT_EQ(items[3].dictionary()->get("enabled"), Value(true));
  EXPECT_EQ(runCli({"limits", "list", "kid"}).out,
            "org.example.app program 0 First\norg.example.app program 1 Second\n");
  EXPECT_EQ(runCli({"limits", "describe", "kid", "org.example.app"}).out,
            "No managed items\nNo schedule\n");
}

TEST_F(LimitsCliTest, BadInputIsRefusedWithOneLineAndNothingChanges) {
  ASSERT_EQ(runCli({"limits", "set", "kid", "computer", "--enable"}).status, 0);
  std::string before = *plist::writePropertyList(readLimits("kid"), plist::Format::XML);
  expectRefused({"limits", "set", "kid", "org.example.none", "--enable"});
  expectRefused({"limits", "set", "kid", "computer", "--weekday-allowance", "12x"});
  expectRefused({"limits", "set", "kid", "computer", "--weekend-allowance", "2147483648"});
  expectRefused({"limits", "set", "kid", "computer", "--enable", "--disable"});
  expectRefused({"limits", "set", "kid", "computer", "--curfews", root_.at("/missing.plist")});
  expectRefused({"limits", "set", "../kid", "computer"});
  expectRefused({"limits", "describe", "kid", "org.example.none"});
  expectRefused({"limits", "show", "kid", "org.example.none"});
  expectRefused({"limits", "list", ".."});
  expectRefused({"overrides", "extend", "kid", "__COMPUTER__", "many"});
  expectRefused({"overrides", "extend", "kid", "__COMPUTER__", "4294967296"});
  expectRefused({"overrides", "total", "a/b", "__COMPUTER__"});
  expectRefused({"authorize-login", "gatewise-no-such-user"});
  EXPECT_EQ(*plist::writePropertyList(readLimits("kid"), plist::Format::XML), before);

  // A file that cannot be read is left alone rather than replaced.
  root_.writeFile("/Library/Managed Preferences/bad/com.morvane.gatewise.timelimits.plist",
                  "<plist><dict>");
  expectRefused({"limits", "set", "bad", "computer", "--enable"});
  EXPECT_EQ(GWLimitItem::allLimitsForUser("bad").size(), 0u);
  EXPECT_EQ(runCli({"limits", "list", "nobody"}).out, "");
}

TEST_F(LimitsCliTest, SetTellsCachesAndTheDaemon) {
  int changes = 0;
  auto observer = notify::addObserver(kGWManagementStatusChangedNotification, "",
                                      [&](const notify::Notification&) { ++changes; });
  ASSERT_TRUE(observer);
  gwtest::TestDaemon daemon;
  ASSERT_EQ(runCli({"limits", "set", "root", "computer", "--enable"}).status, 0);
  ASSERT_TRUE(daemon.waitForRequests(1));
  EXPECT_EQ(daemon.received()[0].routine, "_GWMIGReadSettings");
  EXPECT_EQ(daemon.received()[0].integers[0], 0);
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (changes == 0 && std::chrono::steady_clock::now() < deadline) {
    runloop::runRunLoopOnce(100ms);
  }
  EXPECT_EQ(changes, 1);
  notify::removeObserver(*observer);
}

TEST_F(LimitsCliTest, OverridesAndTheLoginOverrideFromTheShell) {
  EXPECT_EQ(runCli({"overrides", "extend", "kid", "org.example.game", "600"}).status, 0);
  EXPECT_EQ(runCli({"overrides", "extend", "kid", "org.example.game", "-1"}).status, 0);
  EXPECT_EQ(runCli({"overrides", "total", "kid", "org.example.game"}).out, "-1\n");
  EXPECT_EQ(runCli({"overrides", "expire", "kid", "org.example.game"}).status, 0);
  EXPECT_EQ(runCli({"overrides", "total", "kid", "org.example.game"}).out, "0\n");
  EXPECT_EQ(runCli({"overrides", "total", "kid", "org.example.game", "--include-expired"}).out,
            "-1\n");

  // No daemon: allowed without asking anyone.
  gwtest::RunResult free = runCli({"authorize-login", "root"});
  EXPECT_EQ(free.status, 0);
  EXPECT_EQ(free.out, "allowed\n");

  gwtest::TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {600, 2});
  gwtest::PolkitStandIn authority;
  gwtest::RunResult granted = runCli({"authorize-login", "root", "--minutes", "20"});
  EXPECT_EQ(granted.status, 0) << granted.err;
  EXPECT_EQ(granted.out, "allowed\n");
  EXPECT_EQ(runCli({"overrides", "total", "root", "__COMPUTER__"}).out, "1200\n");

  authority.answer(gwtest::PolkitAnswer::Refused);
  gwtest::RunResult refused = runCli({"authorize-login", "root", "--minutes", "20"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "refused\n");
  EXPECT_EQ(runCli({"overrides", "total", "root", "__COMPUTER__"}).out, "1200\n");
  EXPECT_EQ(authority.requests().size(), 2u);
}

}  // namespace
}  // namespace gw
