// Bookmark files: the manager's reading, keys it does not know surviving an edit, and the
// bookmarks commands that read and edit files.
#include <gatewise/bookmarks.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gw::GWLumewayBookmark;
using gw::GWLumewayBookmarkManager;
using gw::plist::Value;

// A file as a browser keeps it: keys of its own at every level, a proxy node the model does not
// know, the bar and a leaf with extra keys.
Value browserFile() {
  Value leaf = Value::newDictionary(
      {{"WebBookmarkType", "WebBookmarkTypeLeaf"},
       {"WebBookmarkUUID", "L1"},
       {"URLString", "https://a.example/?q=1&r=<s>"},
       {"URIDictionary", Value::newDictionary({{"title", "A"}, {"", "https://a.example/"}})},
       {"ReadingListNonSync", Value::newDictionary({{"neverFetch", true}})}});
  Value bar = Value::newDictionary({{"WebBookmarkType", "WebBookmarkTypeList"},
                                    {"WebBookmarkUUID", "B1"},
                                    {"Title", "BookmarksBar"},
                                    {"ShouldOmitFromUI", false},
                                    {"Children", Value::newArray({leaf})}});
  Value proxy =
      Value::newDictionary({{"WebBookmarkType", "WebBookmarkTypeProxy"},
                            {"Title", "History"},
                            {"WebBookmarkIdentifier", "History Bookmark Proxy Identifier"}});
  return Value::newDictionary(
      {{"WebBookmarkFileVersion", 1},
       {"WebBookmarkType", "WebBookmarkTypeList"},
       {"WebBookmarkUUID", "Root"},
       {"Title", ""},
       {"Sync", Value::newDictionary({{"ServerData", gw::plist::Data{0, 1, 2}}})},
       {"Children", Value::newArray({proxy, bar})}});
}

class BookmarkFileTest : public ::testing::Test {
 protected:
  std::string writeFile(const Value& value, gw::plist::Format format = gw::plist::Format::Binary) {
    std::string path = root_.at("/Bookmarks.plist");
    EXPECT_TRUE(gw::plist::writePropertyListFile(path, value, format));
    return path;
  }
  static Value reread(const std::string& path) {
    gw::plist::ReadResult read = gw::plist::readPropertyListFile(path);
    EXPECT_TRUE(read) << read.error;
    return read ? *read.value : Value();
  }

  gwtest::TempRoot root_;
};

TEST_F(BookmarkFileTest, KeysTheModelDoesNotKnowSurviveAnEdit) {
  std::string path = writeFile(browserFile());
  auto manager = GWLumewayBookmarkManager::initWithPath(path);
  auto bar = manager->bookmarksBarBookmarks();
  EXPECT_EQ(manager->fileVersion(), 1);
  ASSERT_EQ(bar->count(), 1u);
  bar->bookmarkAtIndex(0)->setTitle("A renamed");
  bar->addBookmark(GWLumewayBookmark::initWithTitle("New", "https://new.example/"),
                   std::string_view("/Folder/"));
  ASSERT_TRUE(gw::plist::writePropertyListFile(path, Value(manager->dictionaryRepresentation()),
                                               gw::plist::Format::XML));

  Value after = reread(path);
  Value before = browserFile();
  auto& root = *after.dictionary();
  EXPECT_EQ(root.get("Sync"), before.dictionary()->get("Sync"));
  EXPECT_EQ(root.get("Children").array()->at(0),
            before.dictionary()->get("Children").array()->at(0));
  auto& barNode = *root.get("Children").array()->at(1).dictionary();
  EXPECT_EQ(barNode.get("ShouldOmitFromUI"), Value(false));
  auto& leafNode = *barNode.get("Children").array()->at(0).dictionary();
  EXPECT_EQ(leafNode.get("ReadingListNonSync"), Value::newDictionary({{"neverFetch", true}}));
  EXPECT_EQ(leafNode.get("URIDictionary").dictionary()->get("title"), Value("A renamed"));
  EXPECT_EQ(leafNode.get("URLString"), Value("https://a.example/?q=1&r=<s>"));
  EXPECT_EQ(barNode.get("Children").array()->size(), 2u);
}

TEST_F(BookmarkFileTest, TheBarIsFoundOnlyByItsOwnTitle) {
  gwtest::LogCapture log(0);
  Value file = browserFile();
  file.dictionary()->get("Children").array()->at(1).dictionary()->set("Title", "Bookmarks Bar");
  auto manager = GWLumewayBookmarkManager::initWithPath(writeFile(file));
  EXPECT_EQ(manager->bookmarksBarBookmarks()->count(), 0u);
  EXPECT_EQ(manager->_bookmarksBarDictionary(), nullptr);
  auto top = manager->allBookmarks();  // the proxy is logged and skipped
  ASSERT_EQ(top.size(), 1u);
  EXPECT_TRUE(top[0]->isFolder());
  EXPECT_TRUE(log.contains("*** Unknown node type."));
}

TEST_F(BookmarkFileTest, UnreadableFilesFailCleanlyAndAreTriedAgain) {
  gwtest::LogCapture log(0);
  std::string path = root_.at("/Bookmarks.plist");
  auto manager = GWLumewayBookmarkManager::initWithPath(path);
  EXPECT_TRUE(manager->allBookmarks().empty());
  EXPECT_EQ(manager->dictionaryRepresentation(), nullptr);
  EXPECT_TRUE(log.contains("Couldn't read bookmarks from path: " + path));

  root_.writeFile("/Bookmarks.plist", "<plist><array/></plist>");  // not a dictionary
  EXPECT_FALSE(manager->loadData());
  ASSERT_EQ(::truncate(path.c_str(), off_t(GWLumewayBookmarkManager::kMaxBookmarkFileSize) + 1), 0);
  EXPECT_FALSE(manager->loadData());  // refused unread

  writeFile(browserFile());
  EXPECT_EQ(manager->bookmarksBarBookmarks()->count(), 1u);
  EXPECT_EQ(manager->fileVersion(), 1);
}

TEST_F(BookmarkFileTest, AddEditsTheFileInPlaceKeepingItsFormAndMode) {
  std::string path = writeFile(browserFile());
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  gwtest::RunResult run =
      gwtest::runCli({"bookmarks", "add", path, "--path", "/Kids/Games/", "--title", "Chess",
                      "--url", "https://chess.example/ü?a=b&c"});
  ASSERT_EQ(run.status, 0) << run.err;
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  gw::plist::ReadResult read = gw::plist::readPropertyListFile(path);
  ASSERT_TRUE(read);
  EXPECT_EQ(read.format, gw::plist::Format::Binary);
  EXPECT_EQ(read.value->dictionary()->get("Sync"), browserFile().dictionary()->get("Sync"));

  run = gwtest::runCli({"bookmarks", "flat", path});
  ASSERT_EQ(run.status, 0) << run.err;
  gw::plist::ReadResult flat = gw::plist::readPropertyList(run.out);
  ASSERT_TRUE(flat);
  EXPECT_EQ(*flat.value,
            Value::newArray({Value::newDictionary({{"pageTitle", "A"},
                                                   {"address", "https://a.example/?q=1&r=<s>"},
                                                   {"bookmarkPath", "/"}}),
                             Value::newDictionary({{"pageTitle", "Chess"},
                                                   {"address", "https://chess.example/ü?a=b&c"},
                                                   {"bookmarkPath", "/Kids/Games/"}})}));

  // from-flat turns that list into the folder the editor stores.
  std::string list = root_.writeFile("/flat.plist", run.out);
  run = gwtest::runCli({"bookmarks", "from-flat", list});
  ASSERT_EQ(run.status, 0) << run.err;
  gw::plist::ReadResult folder = gw::plist::readPropertyList(run.out);
  ASSERT_TRUE(folder && folder.value->isDictionary());
  auto rebuilt = gw::GWLumewayBookmarkFolder::initWithDictionary(
      gw::plist::deepMutableCopy(*folder.value).dictionary());
  EXPECT_EQ(rebuilt->title(), "Bookmarks Bar");
  EXPECT_EQ(Value(rebuilt->flatArray()), *flat.value);
}

TEST_F(BookmarkFileTest, CommandsRefuseBadInputWithOneLine) {
  std::string notBookmarks = root_.writeFile("/junk.plist", "not a property list");
  std::string dictionary = root_.writeFile("/dict.plist", "<plist><dict/></plist>");
  struct Case {
    std::vector<std::string> args;
    std::string error;
  } cases[] = {
      {{"bookmarks", "flat", root_.at("/missing.plist")},
       "cannot read " + root_.at("/missing.plist")},
      {{"bookmarks", "flat", root_.path()}, root_.path() + " is not a regular file"},
      {{"bookmarks", "add", notBookmarks, "--title", "t", "--url", "u"},
       "not a bookmark file: " + notBookmarks},
      {{"bookmarks", "add", dictionary, "--title", "t", "--url", ""}, "the address is empty"},
      {{"bookmarks", "from-flat", dictionary}, dictionary + " is not a flat list (an array)"},
  };
  for (const Case& c : cases) {
    gwtest::RunResult run = gwtest::runCli(c.args);
    EXPECT_EQ(run.status, 2) << c.error;
    EXPECT_EQ(run.err, "gatewise: " + c.error + "\n");
  }
  // A file without a bar gets one.
  gwtest::RunResult run =
      gwtest::runCli({"bookmarks", "add", dictionary, "--title", "t", "--url", "u"});
  EXPECT_EQ(run.status, 0) << run.err;
  auto manager = GWLumewayBookmarkManager::initWithPath(dictionary);
  EXPECT_EQ(manager->bookmarksBarBookmarks()->count(), 1u);
}

}  // namespace
