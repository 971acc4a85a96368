// Forced preferences: the helper's key-level edits over a recording manager, and the managed
// preference files behind the default manager (atomic replacement, links, the notification).
#include <gatewise/core.h>
#include <gatewise/exception.h>
#include <gatewise/notifications.h>
#include <gatewise/qrm_helper.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "platform/fs/file_io.h"
#include "support/bus_fixture.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

namespace plist = gw::plist;
using gw::GWManagedPreferencesManager;
using gw::GWQRMHelper;

// Keeps domains in memory and counts what it was asked.
class RecordingManager final : public gw::QRMManager {
 public:
  plist::DictionaryRef dictionaryForDomain(std::string_view domain) override {
    ++reads;
    auto it = domains.find(std::string(domain));
    return it == domains.end() ? nullptr : it->second;
  }
  std::optional<plist::Value> objectForKey(std::string_view key, std::string_view domain) override {
    ++reads;
    plist::DictionaryRef d = dictionaryForDomain(domain);
    const plist::Value* v = d ? d->find(key) : nullptr;
    return v ? std::optional<plist::Value>(*v) : std::nullopt;
  }
  void setDictionary(const plist::DictionaryRef& d, std::string_view domain) override {
    ++writes;
    domains[std::string(domain)] = d;
  }
  void removeDictionaryForDomains(const std::vector<std::string>& list) override {
    ++writes;
    for (const std::string& d : list) domains.erase(d);
  }
  bool hasSettingsForDomains(const std::vector<std::string>& list) override {
    for (const std::string& d : list) {
      if (domains.count(d)) return true;
    }
    return false;
  }
  std::map<std::string, plist::DictionaryRef> domains;
  int reads = 0, writes = 0;
};

TEST(QRMHelperTest, KeyEditsFollowTheDomainRules) {
  auto manager = std::make_shared<RecordingManager>();
  auto helper = GWQRMHelper::qrmHelperForManager(manager);

  // Removing from a domain without settings creates nothing.
  helper->removeForcedPrefsObjectForKey("k", "d");
  EXPECT_EQ(manager->writes, 0);
  EXPECT_FALSE(helper->hasSettingsForDomains({"d"}));

  // Setting creates the domain with that one key.
  helper->setForcedPrefsObject(7, "k", "d");
  ASSERT_TRUE(manager->domains.count("d"));
  EXPECT_EQ(plist::Value(manager->domains["d"]), plist::Value::newDictionary({{"k", 7}}));

  // Edits go to a copy: what the manager handed out stays as it was until handed back.
  plist::DictionaryRef before = manager->domains["d"];
  helper->setForcedPrefsObject("v", "other", "d");
  EXPECT_EQ(before->size(), 1u);
  EXPECT_EQ(manager->domains["d"]->size(), 2u);

  // An absent key still hands the domain back.
  int writes = manager->writes;
  helper->removeForcedPrefsObjectForKey("absent", "d");
  EXPECT_EQ(manager->writes, writes + 1);
  helper->removeForcedPrefsObjectForKey("k", "d");
  EXPECT_EQ(plist::Value(manager->domains["d"]), plist::Value::newDictionary({{"other", "v"}}));

  // A null key is answered without the manager; null values and keys raise.
  int reads = manager->reads;
  EXPECT_FALSE(helper->forcedPrefsObjectForKey(std::nullopt, "d"));
  EXPECT_EQ(manager->reads, reads);
  EXPECT_EQ(helper->forcedPrefsObjectForKey("other", "d"), plist::Value("v"));
  EXPECT_THROW(helper->setForcedPrefsObject(plist::Value(), "k", "d"), gw::GWException);
  EXPECT_THROW(helper->setForcedPrefsObject(1, std::nullopt, "d"), gw::GWException);

  // A null dictionary and an empty domain list change nothing.
  writes = manager->writes;
  helper->setForcedPrefsDictionary(nullptr, "d");
  helper->removeForcedPrefsDictionaryForDomains({});
  EXPECT_EQ(manager->writes, writes);
  EXPECT_TRUE(manager->domains.count("d"));
  helper->removeForcedPrefsDictionaryForDomains({"d", "e"});
  EXPECT_FALSE(helper->hasSettingsForDomains({"d", "e"}));
}

class ManagedPreferencesFileTest : public ::testing::Test {
 protected:
  std::string file(const std::string& domain) {
    return root_.at("/Library/Managed Preferences/mia/" + domain + ".plist");
  }
  gwtest::TempRoot root_;
};

TEST_F(ManagedPreferencesFileTest, WritesReplaceTheFileWholeAndAnnounceTheChange) {
  gwtest::PrivateBus& bus = gwtest::sharedPrivateBus();
  (void)bus;
  std::vector<gw::notify::Notification> seen;
  auto observer =
      gw::notify::addObserver(kGWManagementStatusChangedNotification, "",
                              [&](const gw::notify::Notification& n) { seen.push_back(n); });
  ASSERT_TRUE(observer);

  auto manager = GWManagedPreferencesManager::managerForUser("mia");
  auto helper = GWQRMHelper::qrmHelperForManager(manager);
  helper->setForcedPrefsObject(true, "restrictWeb", "com.example.web");
  struct stat first;
  ASSERT_EQ(::stat(file("com.example.web").c_str(), &first), 0);
  EXPECT_EQ(first.st_mode & 07777, 0644u);
  helper->setForcedPrefsObject("x", "name", "com.example.web");
  struct stat second;
  ASSERT_EQ(::stat(file("com.example.web").c_str(), &second), 0);
  EXPECT_NE(first.st_ino, second.st_ino);  // renamed into place, never rewritten in place
  plist::ReadResult read = plist::readPropertyListFile(file("com.example.web"));
  ASSERT_TRUE(read);
  EXPECT_EQ(read.format, plist::Format::XML);
  EXPECT_EQ(plist::Value(read.value->dictionary()),
            plist::Value::newDictionary({{"restrictWeb", true}, {"name", "x"}}));

  for (int i = 0; i < 200 && seen.size() < 2; ++i) {
    gw::notify::drainPendingNotifications();
    ::usleep(10000);
  }
  gw::notify::removeObserver(*observer);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].object, "mia");
  ASSERT_TRUE(seen[0].userInfo);
  EXPECT_EQ(seen[0].userInfo->get("domains"), plist::Value::newArray({"com.example.web"}));
}

TEST_F(ManagedPreferencesFileTest, LinksAreNeitherReadNorWrittenThrough) {
  std::string target = root_.writeFile("/elsewhere.plist",
                                       "<plist version=\"1.0\"><dict><key>a</key><true/></dict>"
                                       "</plist>");
  root_.makeFolder("/Library/Managed Preferences/mia");
  ASSERT_EQ(::symlink(target.c_str(), file("linked").c_str()), 0);
  auto manager = GWManagedPreferencesManager::managerForUser("mia", {false, false});
  EXPECT_FALSE(manager->dictionaryForDomain("linked"));
  EXPECT_FALSE(manager->lastError().empty());
  manager->setDictionary(plist::Dictionary::make({{"b", 1}}), "linked");
  EXPECT_TRUE(manager->lastError().empty());
  struct stat st;
  ASSERT_EQ(::lstat(file("linked").c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(*plist::readPropertyListFile(target).value, plist::Value::newDictionary({{"a", true}}));

  // A file that is not a dictionary reads as no settings, with the reason kept.
  root_.writeFile("/Library/Managed Preferences/mia/list.plist",
                  "<plist version=\"1.0\"><array/></plist>");
  EXPECT_FALSE(manager->hasSettingsForDomains({"list"}));
  EXPECT_NE(manager->lastError().find("not a dictionary"), std::string::npos);
  EXPECT_FALSE(GWManagedPreferencesManager::managerForUser(".."));
  manager->setDictionary(plist::Dictionary::make(), "../escape");
  EXPECT_FALSE(manager->lastError().empty());
}

TEST_F(ManagedPreferencesFileTest, CommandsSetGetAndRefuseBadInput) {
  using gwtest::runCli;
  std::vector<std::string> base = {"--root", root_.path(), "forced"};
  auto cli = [&](std::vector<std::string> args) {
    args.insert(args.begin(), base.begin(), base.end());
    return runCli(args, {.environment = {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent"}}});
  };
  EXPECT_EQ(cli({"set", "mia", "d", "n", "-12"}).status, 0);
  EXPECT_EQ(cli({"set", "mia", "d", "r", "2.5"}).status, 0);
  EXPECT_EQ(cli({"set", "mia", "d", "b", "false"}).status, 0);
  EXPECT_EQ(cli({"set", "mia", "d", "s", "12", "--string"}).status, 0);
  EXPECT_EQ(cli({"set", "mia", "d", "t", "2026-01-02T03:04:05Z"}).status, 0);
  std::string list = root_.writeFile("/list.plist",
                                     "<plist version=\"1.0\"><array><string>a</string></array>"
                                     "</plist>");
  EXPECT_EQ(cli({"set", "mia", "d", "l", "@" + list}).status, 0);
  plist::ReadResult read = plist::readPropertyListFile(file("d"));
  ASSERT_TRUE(read);
  const plist::Dictionary& d = *read.value->dictionary();
  EXPECT_EQ(d.get("n"), plist::Value(-12));
  EXPECT_EQ(d.get("r"), plist::Value(2.5));
  EXPECT_EQ(d.get("b"), plist::Value(false));
  EXPECT_EQ(d.get("s"), plist::Value("12"));
  EXPECT_TRUE(d.get("t").isDate());
  EXPECT_EQ(d.get("l"), plist::Value::newArray({"a"}));

  gwtest::RunResult got = cli({"get", "mia", "d", "n"});
  EXPECT_EQ(got.status, 0);
  EXPECT_NE(got.out.find("<integer>-12</integer>"), std::string::npos);
  EXPECT_EQ(cli({"get", "mia", "d", "absent"}).status, 1);
  EXPECT_EQ(cli({"show", "mia", "nothing"}).status, 1);

  for (std::vector<std::string> bad :
       {std::vector<std::string>{"set", "mia", "d", "k", "@/no/file"},
        {"set", "mia", "d", "k", "99999999999999999999"},
        {"set", "../x", "d", "k", "1"},
        {"get", "mia", "..", "k"}}) {
    got = cli(bad);
    EXPECT_EQ(got.status, 2) << bad[4 % bad.size()];
    EXPECT_EQ(std::count(got.err.begin(), got.err.end(), '\n'), 1) << got.err;
  }
  // An existing file that cannot be read is left alone.
  root_.writeFile("/Library/Managed Preferences/mia/broken.plist", "<plist");
  EXPECT_EQ(cli({"set", "mia", "broken", "k", "1"}).status, 2);
  EXPECT_EQ(*gw::fs::readFile(file("broken"), 100), "<plist");
}

}  // namespace
