// The root-only writer of a managed user's bookmark file, run as the CLI in a temporary root with
// users from nss_wrapper: what it writes, with which owner and mode, and what it refuses.
#include <gatewise/bookmarks.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gw::plist::Value;

constexpr uid_t kKim = 4301;

class BookmarkWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the writer changes owners: needs root";
    passwd_ = root_.writeFile("/nss/passwd",
                              "root:x:0:0:root:/root:/bin/sh\n"
                              "kim:x:4301:4301:Kim:" +
                                  root_.at("/home/kim") +
                                  ":/bin/sh\n"
                                  "lee:x:4302:4302:Lee:" +
                                  root_.at("/home/lee") +
                                  ":/bin/sh\n"
                                  "max:x:4303:4303:Max:" +
                                  root_.at("/home/max") + ":/bin/sh\n");
    group_ = root_.writeFile("/nss/group", "root:x:0:\nkim:x:4301:\nmax:x:4303:\n");
    for (const char* user : {"kim", "lee", "max"}) {
      std::string library = root_.makeFolder(std::string("/home/") + user + "/Library");
      ASSERT_EQ(::chmod(library.c_str(), 0750), 0);
      ASSERT_EQ(::chown(library.c_str(), kKim, kKim), 0);
    }
  }

  gwtest::RunResult write(const std::string& user) {
    return gwtest::runCli(
        {"bookmarks", "write", user},
        {.environment = {{"LD_PRELOAD", "libnss_wrapper.so"},
                         {"NSS_WRAPPER_PASSWD", passwd_},
                         {"NSS_WRAPPER_GROUP", group_},
                         {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + root_.at("/no-bus")},
                         {"ASAN_OPTIONS", "verify_asan_link_order=0"}}});
  }

  // The user's managed browser preference with the allowed sites of flat.
  Value manage(const std::string& user, const Value& flat) {
    Value whitelist(gw::GWLumewayCreateBookmarksFromFlatArray(flat.array()));
    whitelist.dictionary()->set("EditorOnlyKey", "kept");
    std::string bytes = *gw::plist::writePropertyList(
        Value::newDictionary({{"siteWhitelist", whitelist}}), gw::plist::Format::Binary);
    root_.writeFile("/Library/Managed Preferences/" + user + "/com.morvane.Lumeway.plist", bytes);
    return whitelist;
  }

  std::string bookmarkFile(const std::string& user) {
    return root_.at("/home/" + user + "/Library/Lumeway/Bookmarks.plist");
  }

  gwtest::TempRoot root_;
  std::string passwd_, group_;
};

Value sites() {
  return Value::newArray(
      {Value::newDictionary(
           {{"pageTitle", "Zoo"}, {"address", "https://zoo.example/"}, {"bookmarkPath", "/"}}),
       Value::newDictionary({{"pageTitle", "Maths"},
                             {"address", "https://m.example/a?b=1&c=<2>"},
                             {"bookmarkPath", "/School/"}})});
}

TEST_F(BookmarkWriterTest, WritesTheWhitelistAsTheUsersOwnPrivateFile) {
  Value whitelist = manage("kim", sites());
  gwtest::RunResult run = write("kim");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "written\n");

  struct stat folder {};
  ASSERT_EQ(::stat(root_.at("/home/kim/Library/Lumeway").c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 07777, 0750u);  // as the Library folder
  EXPECT_EQ(folder.st_uid, kKim);
  EXPECT_EQ(folder.st_gid, kKim);
  struct stat file {};
  ASSERT_EQ(::lstat(bookmarkFile("kim").c_str(), &file), 0);
  EXPECT_TRUE(S_ISREG(file.st_mode));
  EXPECT_EQ(file.st_mode & 07777, 0600u);
  EXPECT_EQ(file.st_uid, kKim);
  EXPECT_EQ(file.st_gid, kKim);

  gw::plist::ReadResult read = gw::plist::readPropertyListFile(bookmarkFile("kim"));
  ASSERT_TRUE(read) << read.error;
  EXPECT_EQ(*read.value, Value::newDictionary({{"Title", ""},
                                               {"WebBookmarkFileVersiion", 1},
                                               {"WebBookmarkType", "WebBookmarkTypeList"},
                                               {"WebBookmarkUUID", "Root"},
                                               {"Children", Value::newArray({whitelist})}}));
  auto manager = gw::GWLumewayBookmarkManager::initWithPath(bookmarkFile("kim"));
  auto top = manager->allBookmarks();
  EXPECT_EQ(manager->fileVersion(), 0);  // the writer's key is spelt differently
  ASSERT_EQ(top.size(), 1u);
  ASSERT_TRUE(top[0]->isFolder());
  EXPECT_EQ(top[0]->title(), "Bookmarks Bar");
  EXPECT_EQ(Value(std::static_pointer_cast<gw::GWLumewayBookmarkFolder>(top[0])->flatArray()),
            sites());
}

TEST_F(BookmarkWriterTest, RefusesEveryoneButRoot) {
  manage("kim", sites());
  int outcome = gwtest::runInChild([] {
    if (!gwtest::dropToUnprivilegedUser()) return 100;
    return int(gw::writeUserBookmarksToBookmarksFile("kim"));
  });
  EXPECT_EQ(outcome, int(gw::GWBookmarkWriteOutcome::NotRoot));
  EXPECT_FALSE(std::filesystem::exists(root_.at("/home/kim/Library/Lumeway")));
}

TEST_F(BookmarkWriterTest, AUserWithoutManagedBookmarksKeepsTheirFile) {
  std::string old = root_.writeFile("/home/kim/Library/Lumeway/Bookmarks.plist", "old");
  gwtest::RunResult run = write("kim");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "no managed bookmarks\n");
  root_.writeFile("/Library/Managed Preferences/kim/com.morvane.Lumeway.plist",
                  "<plist><dict><key>other</key><true/></dict></plist>");
  EXPECT_EQ(write("kim").status, 1);
  std::ifstream in(old);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "old");
}

TEST_F(BookmarkWriterTest, AFailedWriteLeavesTheOldFileAndNoTemporaryFile) {
  // lee has no group of their own name: the owner cannot be given, so nothing replaces the file.
  manage("lee", sites());
  std::string old = root_.writeFile("/home/lee/Library/Lumeway/Bookmarks.plist", "old");
  gwtest::RunResult run = write("lee");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "gatewise: cannot write the bookmarks of lee\n");
  std::ifstream in(old);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "old");
  int entries = 0;
  for (auto& e : std::filesystem::directory_iterator(root_.at("/home/lee/Library/Lumeway"))) {
    (void)e;
    ++entries;
  }
  EXPECT_EQ(entries, 1);
}

TEST_F(BookmarkWriterTest, LinksPlantedByTheUserAreNotFollowed) {
  manage("max", sites());
  // Library/Lumeway leads elsewhere: refused, nothing is written there.
  std::string elsewhere = root_.makeFolder("/elsewhere");
  ASSERT_EQ(::symlink(elsewhere.c_str(), root_.at("/home/max/Library/Lumeway").c_str()), 0);
  EXPECT_EQ(write("max").status, 2);
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere));

  // The file itself is a link to a file of root's: the link is replaced, its target untouched.
  ASSERT_EQ(::unlink(root_.at("/home/max/Library/Lumeway").c_str()), 0);
  root_.makeFolder("/home/max/Library/Lumeway");
  std::string target = root_.writeFile("/etc/secret", "root's");
  ASSERT_EQ(::symlink(target.c_str(), bookmarkFile("max").c_str()), 0);
  EXPECT_EQ(write("max").status, 0);
  std::ifstream in(target);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "root's");
  struct stat file {};
  ASSERT_EQ(::lstat(bookmarkFile("max").c_str(), &file), 0);
  EXPECT_TRUE(S_ISREG(file.st_mode));
}

TEST_F(BookmarkWriterTest, TheCommandRefusesUnknownUsers) {
  gwtest::RunResult run = write("nobody-here");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "gatewise: unknown user: nobody-here\n");
}

}  // namespace
