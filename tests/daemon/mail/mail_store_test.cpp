// The daemon's mail white lists and chat logs: where and how they are stored, who can read them,
// the bounds, who may change what through the routines, and forced preferences reaching the
// daemon's settings.
#include "daemon/mail/mail_store.h"

#include <fcntl.h>
#include <gatewise/mail.h>
#include <gatewise/qrm_helper.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <chrono>
#include <functional>

#include "../daemon_test_support.h"
#include "daemon/mail/private_folder.h"
#include "daemon/manager.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

namespace plist = gw::plist;
using gw::daemon::MailStore;

constexpr uid_t kUid = 1;

class MailStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    passwd* pw = ::getpwuid(kUid);
    if (!pw) GTEST_SKIP() << "no user with uid 1";
    name_ = pw->pw_name;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root_.at("/no-bus")).c_str(), 1);
  }
  void TearDown() override { ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

  std::string userFolder(uid_t uid) {
    return root_.at(std::string(gw::daemon::kUsersFolder) + "/" + std::to_string(uid));
  }
  plist::Value published() {
    plist::ReadResult read = plist::readPropertyListFile(
        root_.at("/Library/Managed Preferences/" + name_ + "/com.morvane.gatewise.mail.plist"));
    return read ? read.value->dictionary()->get("whiteList") : plist::Value();
  }

  gwtest::TempRoot root_;
  gwtest::LogCapture log_{1};
  std::string name_;
};

mode_t modeOf(const std::string& path) {
  struct stat st {};
  ::lstat(path.c_str(), &st);
  return st.st_mode & 07777;
}

TEST_F(MailStoreTest, WhiteListIsKeptPrivatelyAndPublishedForMailPrograms) {
  MailStore store;
  ASSERT_TRUE(store.addContacts(kUid, name_, {"Grandma@Example.org", "teacher@school.example"}));
  ASSERT_TRUE(store.addContacts(kUid, name_, {"grandma@example.ORG", "", std::string(600, 'a')}));
  EXPECT_EQ(store.contacts(kUid),
            (std::vector<std::string>{"Grandma@Example.org", "teacher@school.example"}));
  EXPECT_EQ(published(), plist::Value::newArray({"Grandma@Example.org", "teacher@school.example"}));
  ASSERT_TRUE(store.removeContact(kUid, name_, "GRANDMA@example.org"));
  EXPECT_EQ(published(), plist::Value::newArray({"teacher@school.example"}));

  std::string file = userFolder(kUid) + "/" + gw::daemon::kMailWhiteListFile;
  EXPECT_EQ(modeOf(userFolder(kUid)), 0700u);
  EXPECT_EQ(modeOf(file), 0600u);
  struct stat st {};
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, ::geteuid());
  if (::geteuid() == 0) {
    // Even with the file's own bits opened up, the folder keeps a dropped uid out.
    ::chmod(file.c_str(), 0644);
    int opened = gwtest::runInChild([&] {
      if (!gwtest::dropToUnprivilegedUser()) return 2;
      return ::open(file.c_str(), O_RDONLY) < 0 && errno == EACCES ? 0 : 1;
    });
    EXPECT_EQ(opened, 0);
  }
}

TEST_F(MailStoreTest, ChatLogsAreRotatedWithinTheirBounds) {
  MailStore store({.maxChatLogBytes = 2000, .maxChatLogTotal = 5000, .maxChatLogs = 3});
  auto record = [](std::size_t bytes) {
    return plist::Dictionary::make({{"fileData", plist::Data(bytes, 'x')}, {"filePath", "/c"}});
  };
  std::vector<std::string> names;
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(store.saveChatLog(kUid, record(100)));
    names = store.chatLogs(kUid);
  }
  ASSERT_EQ(names.size(), 3u);                          // by count: the two oldest went
  EXPECT_FALSE(store.saveChatLog(kUid, record(3000)));  // over the per-log bound
  EXPECT_EQ(store.chatLogs(kUid), names);
  // By total: two logs of 1900 bytes leave room for no more than one small one beside them.
  ASSERT_TRUE(store.saveChatLog(kUid, record(1900)));
  ASSERT_TRUE(store.saveChatLog(kUid, record(1900)));
  std::vector<std::string> now = store.chatLogs(kUid);
  EXPECT_EQ(now.size(), 3u);
  EXPECT_EQ(now.front(), names.back());
  ASSERT_TRUE(store.saveChatLog(kUid, record(1900)));
  EXPECT_EQ(store.chatLogs(kUid).size(), 2u);

  std::string folder = userFolder(kUid) + "/" + gw::daemon::kChatLogFolder;
  EXPECT_EQ(modeOf(folder), 0700u);
  EXPECT_EQ(modeOf(folder + "/" + store.chatLogs(kUid).back()), 0600u);
}

TEST_F(MailStoreTest, LinksOnTheWayAreRefused) {
  std::string elsewhere = root_.makeFolder("/elsewhere");
  root_.makeFolder(gw::daemon::kUsersFolder);
  ASSERT_EQ(::symlink(elsewhere.c_str(), userFolder(kUid).c_str()), 0);
  MailStore store;
  EXPECT_FALSE(store.addContacts(kUid, name_, {"a@b"}));
  EXPECT_FALSE(store.saveChatLog(kUid, plist::Dictionary::make({{"fileData", plist::Data()}})));
  EXPECT_EQ(::access((elsewhere + "/" + gw::daemon::kMailWhiteListFile).c_str(), F_OK), -1);

  // A planted file in place of the white list is not followed either.
  ::unlink(userFolder(kUid).c_str());
  std::string secret =
      root_.writeFile("/secret", "<plist><array><string>x</string></array></plist>");
  std::string error;
  gw::fs::UniqueFd folder = gw::daemon::openUserFolder(kUid, &error);
  ASSERT_TRUE(folder) << error;
  ASSERT_EQ(::symlinkat(secret.c_str(), folder.get(), gw::daemon::kMailWhiteListFile), 0);
  EXPECT_TRUE(store.contacts(kUid).empty());
  EXPECT_FALSE(store.addContacts(kUid, name_, {"a@b"}));
}

// The routines through a serving manager: the library's requests, from root and from a child that
// dropped to an unprivileged uid.
class MailRoutinesTest : public MailStoreTest {
 protected:
  void SetUp() override {
    MailStoreTest::SetUp();
    if (IsSkipped()) return;
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to drop to another uid";
    // The unprivileged child must reach the socket.
    ::chmod(root_.path().c_str(), 0755);
    root_.makeFolder("/run/gatewise/bootstrap");
    gw::daemon::ManagerOptions options;
    options.socketPath = root_.at("/run/gatewise/bootstrap/com.morvane.gatewise");
    options.databasePath = gw::daemon::defaultUsageDatabasePath();
    options.makeMonitor = [](sd_event*, gw::daemon::SessionMonitor::Listener) { return nullptr; };
    options.makeActions = [](sd_event*) { return nullptr; };
    options.postLoginStatusChanged = [](const std::string&) {};
    std::string error;
    // The serving manager blocks the signals it handles; later tests get the mask back.
    ::sigprocmask(SIG_SETMASK, nullptr, &signals_);
    manager_ = gw::daemon::Manager::create(std::move(options), &error);
    ASSERT_TRUE(manager_) << error;
  }
  void TearDown() override {
    manager_.reset();
    ::sigprocmask(SIG_SETMASK, &signals_, nullptr);
    MailStoreTest::TearDown();
  }
  // Runs the manager's loop until done() holds (bounded).
  bool serveUntil(const std::function<bool()>& done) {
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
      if (std::chrono::steady_clock::now() > limit) return false;
      sd_event_run(manager_->loop(), 20000);
    }
    return true;
  }
  std::unique_ptr<gw::daemon::Manager> manager_;
  sigset_t signals_{};
};

TEST_F(MailRoutinesTest, OnlyAnAdministratorWidensAListAndChatLogsGoToTheSender) {
  GWMailAddToWhiteList(plist::Array::make({"grandma@example.org"}), name_);
  ASSERT_TRUE(serveUntil([&] { return manager_->mail().contacts(kUid).size() == 1; }));

  int sent = gwtest::runInChild([&] {
    if (!gwtest::dropToUnprivilegedUser()) return 2;
    GWMailAddToWhiteList(plist::Array::make({"stranger@example.org"}), name_);
    GWParletSaveChatLog("sam", "/tmp/chat", std::make_shared<const plist::Data>(4, 'x'));
    return 0;
  });
  ASSERT_EQ(sent, 0);
  ASSERT_TRUE(serveUntil([&] { return !manager_->mail().chatLogs(65534).empty(); }));
  ASSERT_TRUE(serveUntil([&] { return log_.contains("may not change the mail white list"); }));
  EXPECT_EQ(manager_->mail().contacts(kUid), std::vector<std::string>{"grandma@example.org"});

  // The log is the sender's, with its name as the socket knows it, out of its own reach.
  std::string folder = userFolder(65534) + "/" + gw::daemon::kChatLogFolder;
  std::string file = folder + "/" + manager_->mail().chatLogs(65534).at(0);
  plist::ReadResult read = plist::readPropertyListFile(file);
  ASSERT_TRUE(read);
  EXPECT_EQ(read.value->dictionary()->get("uid"), plist::Value(65534));
  EXPECT_EQ(read.value->dictionary()->get("fileData").data().size(), 4u);
  EXPECT_EQ(gwtest::runInChild([&] {
              if (!gwtest::dropToUnprivilegedUser()) return 2;
              return ::open(file.c_str(), O_RDONLY) < 0 ? 0 : 1;
            }),
            0);
}

TEST_F(MailStoreTest, ForcedPreferenceWritesAreSeenByTheSettingsReread) {
  gw::daemon::ManagerOptions options;
  options.serve = false;
  options.clock =
      std::make_shared<gw::daemon::ManualClock>(gwtest::daemon::local(2026, 1, 5, 10, 0));
  options.databasePath = gw::daemon::defaultUsageDatabasePath();
  options.makeMonitor = [](sd_event*, gw::daemon::SessionMonitor::Listener) { return nullptr; };
  options.makeActions = [](sd_event*) { return nullptr; };
  options.postLoginStatusChanged = [](const std::string&) {};
  std::string error;
  auto manager = gw::daemon::Manager::create(std::move(options), &error);
  ASSERT_TRUE(manager) << error;
  EXPECT_TRUE(manager->loginDecision(kUid).allowed());

  // The preference editor's way: one key of the time-limits domain, through the helper.
  auto helper = gw::GWQRMHelper::qrmHelperForManager(
      gw::GWManagedPreferencesManager::managerForUser(name_, {false, false}));
  plist::Value limits = gwtest::daemon::timeLimits({}, {{0, 0, 6}});
  helper->setForcedPrefsObject(limits.dictionary()->get("limits-list"), "limits-list",
                               "com.morvane.gatewise.timelimits");
  manager->rereadSettings(kUid);
  EXPECT_EQ(manager->loginDecision(kUid).reason, gw::kGWLoginNoTimeToday);
}

}  // namespace
