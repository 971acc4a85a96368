// The client side of recorded events: fetch requests and events through the keyed archiver, the
// events manager against a scripted daemon (wire fields, every failure it reports as nil), the
// authorization's external form, and the start of the managed-client agent.
#include <gatewise/archive.h>
#include <gatewise/events.h>
#include <gatewise/fetch_request.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>

#include "events/authorization.h"
#include "events/managed_client_agent.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gw::GWEvent;
using gw::GWFetchRequest;
using gw::GWUserEventsManager;
using gw::plist::Value;

std::vector<std::uint8_t> eventsArchive(std::initializer_list<gw::GWEventRef> events) {
  auto list = gw::plist::Array::make();
  for (const auto& e : events) list->append(Value(e));
  return gw::archive::archivedDataWithRootObject(Value(list));
}

TEST(FetchRequestTest, RequestsAndEventsSurviveTheKeyedArchive) {
  auto request = GWFetchRequest::fetchRequestWithEntityName("BlockedLaunch");
  request->setPredicate("path BEGINSWITH '/usr/games'");
  request->setSortKey("entity");
  request->setAscending(false);
  request->setFetchLimit(25);
  Value back = gw::archive::unarchiveObjectWithData(
      gw::archive::archivedDataWithRootObject(Value(request), gw::plist::Format::XML));
  auto decoded = back.ifObject<GWFetchRequest>();
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->entityName(), "BlockedLaunch");
  EXPECT_EQ(decoded->predicate(), "path BEGINSWITH '/usr/games'");
  EXPECT_EQ(decoded->sortKey(), "entity");
  EXPECT_FALSE(decoded->ascending());
  EXPECT_EQ(decoded->fetchLimit(), 25u);

  auto when = gw::plist::Date::fromUnixTime(1767643200.5);
  std::vector<std::uint8_t> data =
      eventsArchive({GWEvent::eventWithEntity("RefusedLogin", 4201, when,
                                              {{"reason", Value(2)}, {"seconds", Value(3600)}}),
                     GWEvent::eventWithEntity("VisitedPage", 4201, when,
                                              {{"url", Value("https://a.example/")}})});
  Value events = gw::archive::unarchiveObjectWithData(data);
  ASSERT_TRUE(events.isArray());
  ASSERT_EQ(events.array()->size(), 2u);
  auto first = (*events.array())[0].ifObject<GWEvent>();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->entity(), "RefusedLogin");
  EXPECT_EQ(first->uid(), 4201u);
  EXPECT_EQ(first->time(), when);
  EXPECT_EQ(first->field("seconds").intValue(), 3600);
  EXPECT_EQ(first->description(), "RefusedLogin reason=2 seconds=3600");
}

class EventsManagerTest : public ::testing::Test {
 protected:
  gwtest::TempRoot root_;
  gwtest::LogCapture log_{2};
};

TEST_F(EventsManagerTest, WithoutTheDaemonInitialisationFailsQuietly) {
  auto manager =
      GWUserEventsManager::initWithUserName("mia", gw::GWProcessAuthorizationWithoutAsking());
  EXPECT_EQ(manager, nullptr);
  EXPECT_TRUE(log_.contains("tutelad is not running."));
  EXPECT_FALSE(log_.contains("*** tutelad is not running."));
}

TEST_F(EventsManagerTest, SendsNameEntityQueryAndAuthorizationAndReleasesTheProxy) {
  gwtest::TestDaemon daemon;
  auto when = gw::plist::Date::fromUnixTime(1767643200);
  daemon.answerData("_GWMIGExecuteRequestForUser",
                    eventsArchive({GWEvent::eventWithEntity("Login", 4301, when,
                                                            {{"session", Value("4301.1")}})}));
  {
    auto manager =
        GWUserEventsManager::initWithUserName("mia", gw::GWProcessAuthorizationWithoutAsking());
    ASSERT_TRUE(manager);
    auto request = GWFetchRequest::fetchRequestWithEntityName("Login");
    Value events = manager->executeFetchRequest(request, "Login");
    ASSERT_TRUE(events.isArray());
    EXPECT_EQ((*events.array())[0].ifObject<GWEvent>()->field("session").string(), "4301.1");
    EXPECT_TRUE(log_.contains("_GWMIGExecuteRequestForUser returned 1 items"));
  }
  ASSERT_TRUE(daemon.waitForRequests(3));
  auto received = daemon.received();
  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(received[0].routine, "_GWMIGCreateMOCProxyForUser");
  EXPECT_EQ(received[1].routine, "_GWMIGExecuteRequestForUser");
  EXPECT_EQ(received[2].routine, "_GWMIGReleaseMOCProxyForUser");
  // Create and release: the authorization region, then the user name without a terminating zero.
  std::vector<std::uint8_t> form = received[0].bytes[0];
  ASSERT_EQ(form.size(), 32u);
  EXPECT_EQ(std::string(form.begin(), form.begin() + 4), "GWAX");
  EXPECT_EQ(gw::events::checkExternalForm(form, ::getpid(), ::geteuid()), "");
  EXPECT_EQ(std::string(received[0].bytes[1].begin(), received[0].bytes[1].end()), "mia");
  EXPECT_EQ(received[2].bytes[0], form);
  // Execute: entity, the archived request, the authorization, the user name.
  const auto& execute = received[1].bytes;
  EXPECT_EQ(std::string(execute[0].begin(), execute[0].end()), "Login");
  EXPECT_TRUE(gw::archive::unarchiveObjectWithData(execute[1]).ifObject<GWFetchRequest>());
  EXPECT_EQ(execute[2], form);
  EXPECT_EQ(std::string(execute[3].begin(), execute[3].end()), "mia");
}

TEST_F(EventsManagerTest, EveryBadAnswerIsNil) {
  gwtest::TestDaemon daemon;
  auto manager =
      GWUserEventsManager::initWithUserName("mia", gw::GWProcessAuthorizationWithoutAsking());
  ASSERT_TRUE(manager);
  auto request = GWFetchRequest::fetchRequestWithEntityName("Event");

  // An error reply carries no buffer: it reads as an empty response, before the code is looked at.
  daemon.answerError("_GWMIGExecuteRequestForUser", gw::kGWEventsNotAllowed);
  EXPECT_TRUE(manager->executeFetchRequest(request, "Event").isNull());
  EXPECT_TRUE(log_.contains("*** response was empty"));

  daemon.answerData("_GWMIGExecuteRequestForUser",
                    gw::archive::archivedDataWithRootObject(Value::newDictionary({{"a", 1}})));
  EXPECT_TRUE(manager->executeFetchRequest(request, "Event").isNull());
  EXPECT_TRUE(
      log_.contains("*** _GWMIGExecuteRequestForUser returned invalid object type: NSDictionary"));

  daemon.answerData("_GWMIGExecuteRequestForUser", {'n', 'o', 't', ' ', 'a', 'n'});
  EXPECT_TRUE(manager->executeFetchRequest(request, "Event").isNull());
  EXPECT_TRUE(log_.contains("*** result was nil"));

  EXPECT_TRUE(manager->executeFetchRequest(nullptr, "Event").isNull());
  EXPECT_TRUE(log_.contains("*** Couldn't create query data"));
  EXPECT_TRUE(manager->executeFetchRequest(request, "").isNull());
  EXPECT_TRUE(log_.contains("*** couldn't create entity name string"));
}

class FailingAuthorization final : public gw::GWAuthorization {
 public:
  std::int32_t makeExternalForm(gw::GWAuthorizationExternalForm*) const override { return -60008; }
};

TEST_F(EventsManagerTest, AFailedInitialisationLeavesNoProxyToRelease) {
  gwtest::TestDaemon daemon;
  EXPECT_EQ(GWUserEventsManager::initWithUserName("mia", std::make_shared<FailingAuthorization>()),
            nullptr);
  EXPECT_TRUE(log_.contains("*** Auth serialization failed with err -60008"));
  // A good manager afterwards: its create and release are the only messages the daemon saw, so the
  // failed one sent neither.
  GWUserEventsManager::initWithUserName("mia", gw::GWProcessAuthorizationWithoutAsking()).reset();
  ASSERT_TRUE(daemon.waitForRequests(2));
  auto received = daemon.received();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0].routine, "_GWMIGCreateMOCProxyForUser");
  EXPECT_EQ(received[1].routine, "_GWMIGReleaseMOCProxyForUser");
}

TEST(AuthorizationFormTest, OnlyTheProcessThatMadeItMayUseIt) {
  auto form = gw::events::externalFormOfThisProcess();
  ASSERT_TRUE(form);
  EXPECT_EQ(gw::events::checkExternalForm(*form, ::getpid(), ::geteuid()), "");
  EXPECT_EQ(gw::events::checkExternalForm(*form, ::getpid(), ::geteuid() + 1),
            "authorization of another process");
  EXPECT_EQ(gw::events::checkExternalForm(*form, ::getppid(), ::geteuid()),
            "authorization of another process");
  auto forged = *form;
  forged[16] ^= 1;  // the start time of a process that had this pid before
  EXPECT_EQ(gw::events::checkExternalForm(forged, ::getpid(), ::geteuid()),
            "authorization of an earlier process");
  forged = *form;
  forged[31] = 1;
  EXPECT_EQ(gw::events::checkExternalForm(forged, ::getpid(), ::geteuid()), "not an authorization");
  EXPECT_EQ(gw::events::checkExternalForm(std::span(form->data(), 31), ::getpid(), ::geteuid()),
            "authorization of 31 bytes");
}

TEST(ManagedClientAgentTest, StartsTheAgentWithTheUidFlagAsOneArgument) {
  gwtest::TempRoot root;
  GWUtilities::kickQRMDForUID(501);  // no agent installed: nothing happens
  std::string out = root.at("/args");
  std::string agent =
      root.writeFile("/usr/libexec/gatewise/regentry",
                     "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done >" + out + "\n");
  ::chmod(agent.c_str(), 0755);
  pid_t pid = gw::events::startManagedClientAgent(501);
  ASSERT_GT(pid, 0);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  std::ifstream in(out);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(), "[-u 501][-f]");
}

// The agent this project installs has the daemon reread the user's settings, then overrides.
TEST(ManagedClientAgentTest, TheInstalledAgentHasTheDaemonRereadTheUser) {
  gwtest::TempRoot root;
  std::optional<gwtest::TestDaemon> daemon;
  daemon.emplace();
  std::string cli = GATEWISE_TEST_CLI;
  std::string agent = cli.substr(0, cli.rfind('/')) + "/regentry";
  ASSERT_EQ(::access(agent.c_str(), X_OK), 0) << agent;
  root.makeFolder("/usr/libexec/gatewise");
  ASSERT_EQ(::symlink(agent.c_str(), root.at("/usr/libexec/gatewise/regentry").c_str()), 0);
  pid_t pid = gw::events::startManagedClientAgent(501);
  ASSERT_GT(pid, 0);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  ASSERT_TRUE(daemon->waitForRequests(2));
  auto got = daemon->received();
  EXPECT_EQ(got[0].routine, "_GWMIGReadSettings");
  EXPECT_EQ(got[1].routine, "_GWMIGReadOverrides");
  EXPECT_EQ(got[0].integers[0], 501);

  // Without a daemon it says so by its status; bad arguments get 2.
  daemon.reset();
  EXPECT_EQ(gwtest::runProgram({agent, "-u 501", "-f"}).status, 1);
  EXPECT_EQ(gwtest::runProgram({agent, "-u", "x"}).status, 2);
  EXPECT_EQ(gwtest::runProgram({agent, "-f"}).status, 2);
}

}  // namespace
