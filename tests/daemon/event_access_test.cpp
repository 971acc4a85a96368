// Who may read whose events, asked of tutelad as a program by processes that are who they say:
// forked children that switch to a managed user's or an administrator's uid before they ask. Users
// come from nss_wrapper (the daemon's view); the events were recorded in the database before the
// daemon started. Also what the daemon answers to requests that are not what they should be.
#include <gatewise/archive.h>
#include <gatewise/events.h>
#include <gatewise/ipc.h>
#include <gatewise/mach.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/events/event_store.h"
#include "daemon/usage/usage_store.h"
#include "events/authorization.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gw::plist::Value;

constexpr uid_t kMia = 4301, kLeo = 4302, kCarol = 4310;
constexpr int kNil = 255;

std::string tuteladPath() {
  std::string cli = GATEWISE_TEST_CLI;
  return cli.substr(0, cli.rfind('/')) + "/tutelad";
}

// How many events the manager answers for user, or kNil.
int countEvents(const std::string& user, const gw::GWAuthorizationRef& authorization,
                const std::string& entity = "Event") {
  auto manager = gw::GWUserEventsManager::initWithUserName(user, authorization);
  if (!manager) return kNil;
  auto request = gw::GWFetchRequest::fetchRequestWithEntityName(entity);
  Value events = manager->executeFetchRequest(request, entity);
  return events.isArray() ? int(events.array()->size()) : kNil;
}

// The same from a child running as uid (its group the same number, no supplementary groups).
int countEventsAs(uid_t uid, const std::string& user, gw::GWAuthorizationRef authorization = {}) {
  return gwtest::runInChild([&] {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 ||
        ::setresuid(uid, uid, uid) != 0) {
      return 254;
    }
    return countEvents(user,
                       authorization ? authorization : gw::GWProcessAuthorizationWithoutAsking());
  });
}

class CopiedAuthorization final : public gw::GWAuthorization {
 public:
  explicit CopiedAuthorization(gw::GWAuthorizationExternalForm form) : form_(form) {}
  std::int32_t makeExternalForm(gw::GWAuthorizationExternalForm* form) const override {
    *form = form_;
    return 0;
  }

 private:
  gw::GWAuthorizationExternalForm form_;
};

class EventAccessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::getuid() != 0) GTEST_SKIP() << "needs root to switch users";
    if (::access(tuteladPath().c_str(), X_OK) != 0) GTEST_SKIP() << "tutelad is not built";
    passwd_ = root_.writeFile("/etc/passwd",
                              "root:x:0:0:root:/root:/bin/sh\n"
                              "mia:x:4301:4301:Mia:/home/mia:/bin/sh\n"
                              "leo:x:4302:4302:Leo:/home/leo:/bin/sh\n"
                              "carol:x:4310:4310:Carol:/home/carol:/bin/sh\n");
    group_ = root_.writeFile("/etc/group",
                             "root:x:0:\nsudo:x:27:carol\nmia:x:4301:\nleo:x:4302:\n"
                             "carol:x:4310:\n");
    ::chmod(root_.path().c_str(), 0755);
    std::string path = gw::daemon::defaultUsageDatabasePath(), error;
    ASSERT_TRUE(gw::daemon::UsageStore::open(path, &error)) << error;
    auto store = gw::daemon::EventStore::open(path, &error);
    ASSERT_TRUE(store) << error;
    double now = double(::time(nullptr));
    for (int i = 0; i < 3; ++i) {
      store->record({"BlockedLaunch", kMia, now - 100 + i, {{"path", Value("/usr/games/x")}}});
    }
    store->record({"Login", kLeo, now - 50, {{"session", Value("1")}}});
    store->record({"Logout", kLeo, now - 40, {{"session", Value("1")}}});
    store.reset();

    daemon_ = std::make_unique<gwtest::ChildProcess>(
        std::vector<std::string>{tuteladPath(), "--root", root_.path(), "--foreground",
                                 "--log-level", "1"},
        gwtest::Environment{{"LD_PRELOAD", "libnss_wrapper.so"},
                            {"NSS_WRAPPER_PASSWD", passwd_},
                            {"NSS_WRAPPER_GROUP", group_},
                            {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                            {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + root_.at("/no-bus")}});
    ASSERT_TRUE(waitForLog("tutelad serving"));
  }

  bool waitForLog(const std::string& text) {
    while (auto line = daemon_->readErrLine(std::chrono::seconds(20))) {
      if (line->find(text) != std::string::npos) return true;
    }
    return false;
  }

  void setVisibleToUser(bool visible) {
    root_.writeFile("/Library/Preferences/com.morvane.Gatewise.plist",
                    std::string("<plist><dict><key>eventsVisibleToUser</key><") +
                        (visible ? "true" : "false") + "/></dict></plist>");
  }

  static vm_offset_t address(const void* p) { return vm_offset_t(reinterpret_cast<uintptr_t>(p)); }

  // Has the daemon make this (root) process a proxy for user.
  void createProxy(const std::string& user) {
    auto form = gw::events::externalFormOfThisProcess();
    mach_port_t port = 0;
    ASSERT_EQ(bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port), 0);
    ASSERT_EQ(_GWMIGCreateMOCProxyForUser(port, 1000, address(form->data()), 32, user.data(),
                                          mach_msg_type_number_t(user.size())),
              0);
  }

  // The daemon's return code for a query of user made of raw bytes, sent by this process.
  std::int32_t rawQuery(const std::string& user, const std::string& entity,
                        const std::vector<std::uint8_t>& query) {
    auto form = gw::events::externalFormOfThisProcess();
    mach_port_t port = 0;
    if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != 0) return -999;
    vm_offset_t data = 0;
    mach_msg_type_number_t size = 0;
    kern_return_t status = _GWMIGExecuteRequestForUser(
        port, 1000, address(entity.data()), mach_msg_type_number_t(entity.size()),
        address(query.data()), mach_msg_type_number_t(query.size()), address(form->data()), 32,
        user.data(), mach_msg_type_number_t(user.size()), &data, &size);
    if (data) vm_deallocate(mach_task_self(), data, size);
    return status;
  }

  gwtest::TempRoot root_;
  std::string passwd_, group_;
  std::unique_ptr<gwtest::ChildProcess> daemon_;
};

TEST_F(EventAccessTest, AdministratorsReadAnyoneAndManagedUsersOnlyThemselvesWhenAllowed) {
  setVisibleToUser(false);
  EXPECT_EQ(countEvents("mia", gw::GWProcessAuthorizationWithoutAsking()), 3);  // root
  EXPECT_EQ(countEventsAs(kCarol, "leo"), 2);                                   // sudo member
  EXPECT_EQ(countEventsAs(kCarol, "mia"), 3);
  EXPECT_EQ(countEventsAs(kMia, "mia"), kNil);  // not while the host keeps events from users
  EXPECT_EQ(countEventsAs(kMia, "leo"), kNil);
  EXPECT_TRUE(waitForLog("uid 4301 may not read the events of mia"));

  setVisibleToUser(true);
  EXPECT_EQ(countEventsAs(kMia, "mia"), 3);
  EXPECT_EQ(countEventsAs(kLeo, "leo"), 2);
  EXPECT_EQ(countEventsAs(kMia, "leo"), kNil);
  EXPECT_TRUE(waitForLog("uid 4301 may not read the events of leo"));
}

TEST_F(EventAccessTest, AnAuthorizationCopiedFromAnotherProcessIsRefused) {
  setVisibleToUser(true);
  auto rootForm = gw::events::externalFormOfThisProcess();
  ASSERT_TRUE(rootForm);
  // Mia presents root's bytes: they name another process, so she gets not even her own events.
  EXPECT_EQ(countEventsAs(kMia, "leo", std::make_shared<CopiedAuthorization>(*rootForm)), kNil);
  EXPECT_EQ(countEventsAs(kMia, "mia", std::make_shared<CopiedAuthorization>(*rootForm)), kNil);
  EXPECT_TRUE(waitForLog("refused: authorization of another process"));
}

TEST_F(EventAccessTest, RequestsThatAreNotWhatTheyShouldBeGetAClearStatus) {
  auto archive = [](const Value& v) { return gw::archive::archivedDataWithRootObject(v); };
  auto request = [](const std::string& entity, const std::string& predicate, std::uint64_t limit) {
    auto r = gw::GWFetchRequest::fetchRequestWithEntityName(entity);
    r->setPredicate(predicate);
    r->setFetchLimit(limit);
    return Value(r);
  };
  EXPECT_EQ(rawQuery("mia", "Event", archive(request("Event", "", 0))), gw::kGWEventsNoProxy);
  createProxy("mia");
  EXPECT_EQ(rawQuery("mia", "Event", archive(request("Event", "", 0))), 0);
  EXPECT_EQ(rawQuery("mia", "Event", {'x', 'y'}), gw::kGWEventsBadRequest);
  EXPECT_TRUE(waitForLog("the query is not a fetch request"));
  EXPECT_EQ(rawQuery("mia", "Event", archive(Value::newDictionary({{"entityName", "Login"}}))),
            gw::kGWEventsBadRequest);
  EXPECT_EQ(rawQuery("mia", "Bedtime", archive(request("Event", "", 0))), gw::kGWEventsBadRequest);
  EXPECT_TRUE(waitForLog("unknown entity \"Bedtime\""));
  EXPECT_EQ(rawQuery("mia", "Login", archive(request("Logout", "", 0))), gw::kGWEventsBadRequest);
  EXPECT_EQ(rawQuery("mia", "Event", archive(request("Event", "", 10001))),
            gw::kGWEventsBadRequest);
  EXPECT_TRUE(waitForLog("fetch limit 10001 is more than 10000"));
  EXPECT_EQ(rawQuery("mia", "Event", archive(request("Event", "path ==", 0))),
            gw::kGWEventsBadRequest);
  EXPECT_TRUE(waitForLog("predicate: expected a value"));
  EXPECT_EQ(rawQuery("nobody-here", "Event", archive(request("Event", "", 0))),
            gw::kGWEventsBadRequest);
  EXPECT_EQ(rawQuery("../mia", "Event", archive(request("Event", "", 0))), gw::kGWEventsBadRequest);
}

}  // namespace
