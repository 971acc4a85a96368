#include <gatewise/notifications.h>
#include <gatewise/runloop.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>

#include "platform/notify/center.h"
#include "support/bus_fixture.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace gw::notify {
namespace {

using namespace std::chrono_literals;

plist::DictionaryRef sampleUserInfo() {
  return plist::Value::newDictionary(
             {{"user", "bob"},
              {"domains", plist::Value::newArray({"com.morvane.vistrel", 7, true})},
              {"nested", plist::Value::newDictionary({{"tab\tand\nnewline", "é"}})}})
      .dictionary();
}

// Runs this thread's loop until done() or five seconds pass.
bool runLoopUntil(const std::function<bool()>& done) {
  auto deadline = std::chrono::steady_clock::now() + 5s;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    gw::runloop::runRunLoopOnce(100ms);
  }
  return true;
}

TEST(NotifyTest, AnotherProcessSeesThePostWithItsUserInfoIntact) {
  gwtest::sharedPrivateBus();
  gwtest::ChildProcess listener(
      {GATEWISE_TEST_CLI, "notify", "listen", "Alpha", "Beta", "--count", "2", "--timeout", "20"});
  ASSERT_EQ(listener.readErrLine(10s), "gatewise: listening");
  ASSERT_TRUE(postNotification("Ignored", "x"));
  ASSERT_TRUE(postNotification("Alpha", "object-1", sampleUserInfo()));
  ASSERT_TRUE(postNotification("Beta"));
  auto first = listener.readOutLine(10s);
  auto second = listener.readOutLine(10s);
  ASSERT_TRUE(first && second);
  EXPECT_TRUE(first->starts_with("Alpha\tobject-1\t{")) << *first;
  EXPECT_EQ(first->find('\n'), std::string::npos);
  for (const char* part : {"user = bob", "com.morvane.vistrel", "nested"}) {
    EXPECT_NE(first->find(part), std::string::npos) << part << " in " << *first;
  }
  EXPECT_EQ(*second, "Beta\t\t(null)");
  EXPECT_EQ(listener.wait(), 0);
}

TEST(NotifyTest, ThisProcessSeesAPostFromTheCommandLineWithItsUserInfoIntact) {
  gwtest::sharedPrivateBus();
  gwtest::TempRoot root;
  std::string file = root.at("/info.plist");
  ASSERT_TRUE(
      plist::writePropertyListFile(file, plist::Value(sampleUserInfo()), plist::Format::XML));

  std::vector<Notification> seen;
  auto any = addObserver("Gamma", "", [&](const Notification& n) { seen.push_back(n); });
  auto onlyOther = addObserver("Gamma", "other", [&](const Notification& n) { seen.push_back(n); });
  ASSERT_TRUE(any && onlyOther);
  auto posted = gwtest::runCli({"notify", "post", "Gamma", "--object", "obj", "--user-info", file});
  ASSERT_EQ(posted.status, 0) << posted.err;
  ASSERT_TRUE(runLoopUntil([&] { return !seen.empty(); }));
  EXPECT_EQ(seen[0].name, "Gamma");
  EXPECT_EQ(seen[0].object, "obj");
  ASSERT_TRUE(seen[0].userInfo);
  EXPECT_EQ(plist::Value(seen[0].userInfo), plist::Value(sampleUserInfo()));

  // Removed observers hear nothing more; the object filter kept the second one quiet throughout.
  removeObserver(*any);
  removeObserver(*onlyOther);
  bool witness = false;
  auto last = addObserver("Gamma", "", [&](const Notification&) { witness = true; });
  ASSERT_TRUE(postNotification("Gamma", "obj"));
  ASSERT_TRUE(runLoopUntil([&] { return witness; }));
  EXPECT_EQ(seen.size(), 1u);
  removeObserver(*last);
}

TEST(NotifyTest, PostingWithoutABusFailsWithAReason) {
  gwtest::LogCapture log(0);
  gwtest::TempRoot root;
  std::string previous = getenv("DBUS_SYSTEM_BUS_ADDRESS") ? getenv("DBUS_SYSTEM_BUS_ADDRESS") : "";
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root.at("/no-bus")).c_str(), 1);
  EXPECT_FALSE(postNotification("Delta", "x"));
  EXPECT_TRUE(log.contains("*** Couldn't post Delta: cannot connect to the system bus"));

  // A socket that accepts connections but never answers: the post gives up after its time-out.
  int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string path = root.at("/silent");
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
  EXPECT_FALSE(postNotification("Delta", "x"));
  EXPECT_TRUE(log.contains("timed out"));
  ::close(listener);

  if (previous.empty()) {
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  } else {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", previous.c_str(), 1);
  }
}

TEST(NotifyTest, NamesThatCannotBeMatchedAreRefused) {
  gwtest::LogCapture log(0);
  EXPECT_FALSE(addObserver("it's", "", [](const Notification&) {}));
  EXPECT_TRUE(log.contains("can't be matched"));
}

TEST(NotifyTest, ObserversSurviveTheBusGoingAwayAndComingBack) {
  gwtest::sharedPrivateBus();
  int heard = 0;
  auto observer = addObserver("Epsilon", "", [&](const Notification&) { ++heard; });
  ASSERT_TRUE(observer);
  {
    gwtest::PrivateBus replacement;
    disconnectForTesting();
    drainPendingNotifications();  // reconnects to the replacement and installs the match again
    ASSERT_TRUE(postNotification("Epsilon"));
    ASSERT_TRUE(runLoopUntil([&] { return heard == 1; }));
  }
  // The replacement bus is gone: its hang-up is handled once, and the loop goes quiet instead of
  // reporting the dead socket over and over.
  gw::runloop::runRunLoopOnce(1s);
  EXPECT_EQ(gw::runloop::runRunLoopOnce(50ms), 0);
  removeObserver(*observer);
}

}  // namespace
}  // namespace gw::notify
