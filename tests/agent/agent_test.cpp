// The session agent against a recording notification server on a private bus (serving as both
// the session bus and the system bus of the library's notifications), with the daemon's status
// list supplied by the test.
#include "agent.h"

#include <gatewise/archive.h>
#include <gatewise/core.h>
#include <gatewise/notifications.h>
#include <gatewise/runloop.h>
#include <gatewise/status.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>

#include "support/bus_fixture.h"
#include "support/log_capture.h"
#include "support/notification_standin.h"
#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gw::agent::Agent;
using gw::agent::StatusEntry;

double nowUnix() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

StatusEntry warning(std::string key, std::string subject, double expiration) {
  return {std::move(key), std::move(subject),
          "Warning",      "Only 5 minutes remains for the computer \"computer\".",
          expiration,     true};
}

StatusEntry alert(std::string key, std::string subject, double expiration) {
  return {std::move(key),
          std::move(subject),
          "Application Allowance Expired",
          "Your time with the application \"Chess\" has expired. \"Chess\" will now quit.",
          expiration,
          false};
}

class AgentTest : public ::testing::Test {
 protected:
  AgentTest() : bus_(gwtest::sharedPrivateBus()) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", bus_.address().c_str(), 1);
  }
  ~AgentTest() override {
    agent_.reset();
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }

  void startServer() { server_ = std::make_unique<gwtest::NotificationStandIn>(bus_.address()); }

  // The status list comes from list_, or from the daemon when fromDaemon is set.
  void startAgent(bool fromDaemon = false) {
    gw::agent::AgentOptions options;
    options.userName = "alice";
    if (!fromDaemon) options.fetch = [this] { return list_; };
    // Only the test's requests and the first turn fetch.
    options.policy = {.idleInterval = 3600, .busyInterval = 3600, .minimumSpacing = 0};
    std::string error;
    agent_ = Agent::create(gw::runloop::currentRunLoop(), options, &error);
    ASSERT_TRUE(agent_) << error;
  }

  // Runs the agent's loop until done() holds; false if it does not within the limit.
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      if (std::chrono::steady_clock::now() > end) return false;
      gw::runloop::runRunLoopOnce(std::chrono::milliseconds(50));
    }
    return true;
  }

  // One more fetch, with every notification it sends answered.
  void refreshAndSettle() {
    std::size_t fetches = agent_->fetchCount();
    agent_->requestRefresh();
    ASSERT_TRUE(runUntil(
        [&] { return agent_->fetchCount() > fetches && agent_->notificationsInFlight() == 0; }));
  }

  std::size_t shownCount() const { return server_ ? server_->notifications().size() : 0; }

  gwtest::PrivateBus& bus_;
  std::unique_ptr<gwtest::NotificationStandIn> server_;
  std::optional<std::vector<StatusEntry>> list_ = std::vector<StatusEntry>{};
  std::unique_ptr<Agent> agent_;
};

TEST_F(AgentTest, EachNewItemIsShownOnceWithItsTextsAndUrgency) {
  startServer();
  double now = nowUnix();
  list_ = {warning("w1", "computer", now + 300), alert("a1", "Chess", now + 5)};
  startAgent();
  ASSERT_TRUE(runUntil([&] { return shownCount() == 2 && agent_->notificationsInFlight() == 0; }));
  auto shown = server_->notifications();
  EXPECT_EQ(shown[0].appName, "Gatewise");
  EXPECT_EQ(shown[0].summary, "Warning");
  EXPECT_EQ(shown[0].body, "Only 5 minutes remains for the computer \"computer\".");
  EXPECT_EQ(shown[0].urgency, std::optional<std::uint8_t>(1));
  EXPECT_EQ(shown[0].replacesId, 0u);
  EXPECT_TRUE(shown[0].actions.empty());
  // A warning goes away when its moment has come.
  EXPECT_GT(shown[0].expireTimeout, 290'000);
  EXPECT_LE(shown[0].expireTimeout, 300'000);
  EXPECT_EQ(shown[1].summary, "Application Allowance Expired");
  EXPECT_EQ(shown[1].urgency, std::optional<std::uint8_t>(2));
  EXPECT_EQ(shown[1].expireTimeout, 0);  // an alert stays until dismissed

  // The same list again shows nothing new; a new item in it is shown alone.
  list_->push_back(warning("w2", "Games", now + 600));
  refreshAndSettle();
  shown = server_->notifications();
  ASSERT_EQ(shown.size(), 3u);
  EXPECT_EQ(shown[2].replacesId, 0u);
  EXPECT_GT(shown[2].expireTimeout, 590'000);
}

TEST_F(AgentTest, LaterWarningOfTheSameThingReplacesTheEarlierNotification) {
  startServer();
  double now = nowUnix();
  list_ = {warning("five", "computer", now + 300)};
  startAgent();
  ASSERT_TRUE(runUntil([&] { return shownCount() == 1 && agent_->notificationsInFlight() == 0; }));
  std::uint32_t first = server_->notifications()[0].returnedId;

  list_ = {warning("one", "computer", now + 60)};
  refreshAndSettle();
  ASSERT_EQ(shownCount(), 2u);
  EXPECT_EQ(server_->notifications()[1].replacesId, first);

  // The final alert takes the warning's place; a further alert does not replace an alert.
  list_ = {alert("end", "computer", now)};
  refreshAndSettle();
  ASSERT_EQ(shownCount(), 3u);
  EXPECT_EQ(server_->notifications()[2].replacesId, server_->notifications()[1].returnedId);
  list_ = {alert("end", "computer", now), alert("again", "computer", now + 1)};
  refreshAndSettle();
  ASSERT_EQ(shownCount(), 4u);
  EXPECT_EQ(server_->notifications()[3].replacesId, 0u);
  // Another subject never replaces.
  list_ = {warning("other", "Games", now + 60)};
  refreshAndSettle();
  ASSERT_EQ(shownCount(), 5u);
  EXPECT_EQ(server_->notifications()[4].replacesId, 0u);
}

TEST_F(AgentTest, NothingToShowWithoutDaemonOrServerAndShownOnceBothAreThere) {
  list_ = std::nullopt;  // daemon absent
  startAgent();
  ASSERT_TRUE(runUntil([&] { return agent_->fetchCount() == 1; }));

  // Items but no notification server: the calls fail, and the next list tries again.
  list_ = {warning("w1", "computer", nowUnix() + 300)};
  refreshAndSettle();
  startServer();
  refreshAndSettle();
  ASSERT_EQ(shownCount(), 1u);
  EXPECT_EQ(server_->notifications()[0].summary, "Warning");
  refreshAndSettle();
  EXPECT_EQ(shownCount(), 1u);
}

TEST_F(AgentTest, TextTheBusRefusesIsLoggedOnceAndNeverSent) {
  gwtest::LogCapture log(0);
  startServer();
  StatusEntry broken = warning("bad", "computer", nowUnix() + 300);
  broken.body = "Only \xFF remains";  // not UTF-8: the bus refuses the message
  list_ = {broken};
  startAgent();
  ASSERT_TRUE(runUntil([&] { return agent_->fetchCount() == 1; }));
  list_->push_back(warning("good", "Games", nowUnix() + 300));
  refreshAndSettle();
  refreshAndSettle();
  ASSERT_EQ(shownCount(), 1u);
  EXPECT_EQ(server_->notifications()[0].body, warning("", "", 0).body);
  auto lines = log.lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) {
                            return line.find("*** Cannot send a desktop notification") !=
                                   std::string::npos;
                          }),
            1);
}

TEST_F(AgentTest, LoginStatusChangeOfThisUserFetchesAgain) {
  startServer();
  startAgent();
  ASSERT_TRUE(runUntil([&] { return agent_->fetchCount() == 1; }));

  // Another user's change is seen (by the test's own observer) but asks for nothing.
  bool seenOther = false;
  auto sentinel = gw::notify::addObserver(gw::agent::kLoginStatusChangedNotification, "",
                                          [&](const gw::notify::Notification& n) {
                                            if (n.userInfo && n.userInfo->contains("userName"))
                                              seenOther = true;
                                          });
  ASSERT_TRUE(sentinel);
  auto forUser = [](const char* name) {
    auto info = gw::plist::Value::newDictionary({{"userName", name}}).dictionary();
    return gw::notify::postNotification(gw::agent::kLoginStatusChangedNotification, "", info);
  };
  ASSERT_TRUE(forUser("bob"));
  ASSERT_TRUE(runUntil([&] { return seenOther; }));
  EXPECT_FALSE(agent_->refreshRequested());
  EXPECT_EQ(agent_->fetchCount(), 1u);
  gw::notify::removeObserver(*sentinel);

  ASSERT_TRUE(forUser("alice"));
  EXPECT_TRUE(runUntil([&] { return agent_->fetchCount() == 2; }));
  // Changed managed settings count too.
  ASSERT_TRUE(gw::notify::postNotification(kGWManagementStatusChangedNotification, "tests"));
  EXPECT_TRUE(runUntil([&] { return agent_->fetchCount() == 3; }));
}

}  // namespace

// The whole way: a daemon that archives its status items, the library's fetch, the desktop.
TEST_F(AgentTest, TheDaemonsStatusItemsReachTheDesktop) {
  gwtest::TempRoot root;
  gwtest::TestDaemon daemon;
  gw::plist::Date now = gw::plist::Date::now();
  auto warning = gw::GWStatusItem::initWithName("Computer", std::string(gw::kGWItemKindComputer),
                                                {now.secondsSinceReferenceDate + 298});
  warning->setItemCreationDate(now);
  warning->setItemID("warning-5");
  auto blocked = gw::GWStatusItem::initWithName("Chess", std::string(gw::kGWItemKindProgram), now);
  blocked->setStatusKind(std::string(gw::kGWStatusKindBlacklisted));
  auto unknown = gw::GWStatusItem::initWithName("Odd", std::string(gw::kGWItemKindGroup), now);
  unknown->setStatusKind("SomethingNew");
  daemon.answerData("_GWMIGGetStatusItems",
                    gw::archive::archivedDataWithRootObject(
                        gw::plist::Value::newArray({warning, blocked, unknown})));
  startServer();
  startAgent(true);
  ASSERT_TRUE(runUntil([&] { return shownCount() == 2 && agent_->notificationsInFlight() == 0; }));
  auto shown = server_->notifications();
  EXPECT_EQ(shown[0].summary, "Warning");
  EXPECT_EQ(shown[0].body, "Only 5 minutes remains for the computer \"Computer\".");
  EXPECT_EQ(shown[0].urgency, std::optional<std::uint8_t>(1));
  EXPECT_EQ(shown[1].summary, "Application Not Allowed");
  EXPECT_EQ(shown[1].body, "The application \"Chess\" is not allowed. \"Chess\" will now quit.");
  EXPECT_EQ(shown[1].urgency, std::optional<std::uint8_t>(2));
  // The same archive again: nothing new (the item without an id is known by its fields), and the
  // item with nothing to say is never shown.
  refreshAndSettle();
  EXPECT_EQ(shownCount(), 2u);
  EXPECT_GE(daemon.requestCount(), 2u);
}

// The installed program as a session starts it: its own process, the session bus from the
// environment, the daemon found below the system root.
TEST_F(AgentTest, TheProgramShowsTheDaemonsItemsInItsSession) {
  gwtest::TempRoot root;
  gwtest::TestDaemon daemon;
  gw::plist::Date now = gw::plist::Date::now();
  auto warning = gw::GWStatusItem::initWithName("Chess", std::string(gw::kGWItemKindProgram),
                                                {now.secondsSinceReferenceDate + 60});
  warning->setItemCreationDate(now);
  daemon.answerData("_GWMIGGetStatusItems",
                    gw::archive::archivedDataWithRootObject(gw::plist::Value::newArray({warning})));
  startServer();
  gwtest::ChildProcess agent({GATEWISE_TEST_AGENT}, {{"DBUS_SESSION_BUS_ADDRESS", bus_.address()},
                                                     {"DBUS_SYSTEM_BUS_ADDRESS", bus_.address()},
                                                     {"GATEWISE_ROOT", root.path()}});
  ASSERT_TRUE(server_->waitForNotifications(1, std::chrono::seconds(20)));
  auto shown = server_->notifications();
  EXPECT_EQ(shown[0].appName, "Gatewise");
  EXPECT_EQ(shown[0].summary, "Warning");
  EXPECT_EQ(shown[0].body, "Only 1 minute remains for the application \"Chess\".");
}
