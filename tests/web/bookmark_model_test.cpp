// The bookmark tree as live objects over node dictionaries: path operations, flat lists, hostile
// trees and keyed coding.
#include <gatewise/archive.h>
#include <gatewise/bookmarks.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace {

using gw::GWLumewayBookmark;
using gw::GWLumewayBookmarkFolder;
using gw::GWLumewayBookmarkFolderRef;
using gw::plist::Array;
using gw::plist::Dictionary;
using gw::plist::DictionaryRef;
using gw::plist::Value;

const Array& childrenOf(const DictionaryRef& node) { return *node->get("Children").ifArray(); }

DictionaryRef leafNode(const char* title, const char* url) {
  return GWLumewayBookmark::initWithTitle(title, url)->dictionaryRepresentation();
}

Value flatEntry(const char* title, const char* address, const char* path) {
  return Value::newDictionary({{"pageTitle", title}, {"address", address}, {"bookmarkPath", path}});
}

TEST(BookmarkModelTest, NewNodesHaveTheFileFormat) {
  auto leaf = GWLumewayBookmark::initWithTitle("News", "https://news.example/");
  const DictionaryRef& node = leaf->dictionaryRepresentation();
  EXPECT_EQ(node->get("WebBookmarkType"), Value("WebBookmarkTypeLeaf"));
  EXPECT_EQ(node->get("URLString"), Value("https://news.example/"));
  EXPECT_EQ(node->get("URIDictionary"),
            Value::newDictionary({{"title", "News"}, {"", "https://news.example/"}}));
  EXPECT_EQ(node->get("WebBookmarkUUID").string().size(), 36u);

  leaf->setURL("https://other.example/a b?c=<d>");
  leaf->setTitle(std::nullopt);  // ignored
  leaf->setURL(std::nullopt);    // ignored
  EXPECT_EQ(node->get("URLString"), Value("https://other.example/a b?c=<d>"));
  EXPECT_EQ(node->get("URIDictionary").dictionary()->get(""),
            Value("https://other.example/a b?c=<d>"));
  EXPECT_EQ(leaf->title(), "News");
  EXPECT_EQ(leaf->description(), "News -- https://other.example/a b?c=<d>");

  auto folder = GWLumewayBookmarkFolder::initWithTitle("Local");
  EXPECT_EQ(folder->dictionaryRepresentation()->get("WebBookmarkType"),
            Value("WebBookmarkTypeList"));
  EXPECT_TRUE(childrenOf(folder->dictionaryRepresentation()).empty());
  EXPECT_EQ(folder->description(), "Local (folder, 0 children)");
  EXPECT_THROW(folder->setTitle(std::nullopt), gw::GWException);
}

TEST(BookmarkModelTest, ANodeWithoutUUIDGainsOneAtOnce) {
  auto node = Dictionary::make({{"WebBookmarkType", "WebBookmarkTypeLeaf"}, {"URLString", "u"}});
  auto leaf = GWLumewayBookmark::initWithDictionary(node);
  ASSERT_TRUE(node->get("WebBookmarkUUID").isString());
  EXPECT_EQ(leaf->uuid(), node->get("WebBookmarkUUID").string());
  EXPECT_EQ(leaf->dictionaryRepresentation(), node);  // held, not copied
}

TEST(BookmarkModelTest, AddingAtAPathCreatesFoldersOnceAndReusesThem) {
  auto root = GWLumewayBookmarkFolder::initWithTitle("Bar");
  root->addBookmark(GWLumewayBookmark::initWithTitle("one", "u1"), std::string_view("/A/B/"));
  root->addBookmark(GWLumewayBookmark::initWithTitle("two", "u2"), std::string_view("/A/C/"));
  root->addBookmark(GWLumewayBookmark::initWithTitle("three", "u3"), std::string_view("/"));
  root->addBookmark(GWLumewayBookmark::initWithTitle("four", "u4"), std::string_view("/a/"));

  ASSERT_EQ(root->count(), 3u);  // A, three, a: titles are compared case-sensitively
  auto a = std::static_pointer_cast<GWLumewayBookmarkFolder>(root->bookmarkAtIndex(0));
  EXPECT_EQ(a->title(), "A");
  ASSERT_EQ(a->count(), 2u);
  EXPECT_EQ(a->bookmarkAtIndex(0)->title(), "B");
  EXPECT_EQ(a->bookmarkAtIndex(1)->title(), "C");
  EXPECT_EQ(root->indexOfBookmarkFolderWithTitle("a"), 2);
  EXPECT_EQ(root->indexOfBookmarkFolderWithTitle("three"), -1);  // a leaf is not a folder
  EXPECT_EQ(root->indexOfBookmarkFolderWithTitle("B"), -1);      // direct children only

  // The dictionaries hold the same tree, node for node.
  const Array& top = childrenOf(root->dictionaryRepresentation());
  ASSERT_EQ(top.size(), 3u);
  EXPECT_EQ(top[0].dictionary(), a->dictionaryRepresentation());
  const Array& inA = childrenOf(top[0].dictionary());
  ASSERT_EQ(inA.size(), 2u);
  EXPECT_EQ(childrenOf(inA[0].dictionary())[0].dictionary()->get("URLString"), Value("u1"));

  auto two =
      std::static_pointer_cast<GWLumewayBookmarkFolder>(a->bookmarkAtIndex(1))->bookmarkAtIndex(0);
  EXPECT_EQ(root->folderForBookmark(*two), a->bookmarkAtIndex(1));
  EXPECT_EQ(root->folderForBookmark(*GWLumewayBookmark::initWithTitle("x", "y")), nullptr);
  std::vector<std::string> leaves;
  for (const auto& leaf : root->allBookmarks()) leaves.push_back(*leaf->title());
  EXPECT_EQ(leaves, (std::vector<std::string>{"one", "two", "three", "four"}));
}

TEST(BookmarkModelTest, UnknownNodesStayInTheDictionaryButGetNoObject) {
  gwtest::LogCapture log(0);
  auto node = Dictionary::make(
      {{"WebBookmarkType", "WebBookmarkTypeList"},
       {"Title", "Bar"},
       {"Children",
        Value::newArray({Value::newDictionary(
                             {{"WebBookmarkType", "WebBookmarkTypeProxy"}, {"Title", "History"}}),
                         Value("not a node"), Value::newDictionary({{"Title", "no type"}}),
                         leafNode("kept", "u")})}});
  auto folder = GWLumewayBookmarkFolder::initWithDictionary(node);
  ASSERT_EQ(folder->count(), 1u);
  EXPECT_EQ(folder->bookmarkAtIndex(0)->title(), "kept");
  EXPECT_EQ(childrenOf(node).size(), 4u);
  EXPECT_TRUE(log.contains("*** Unknown node type."));
  EXPECT_THROW(folder->bookmarkAtIndex(1), gw::GWException);
  EXPECT_THROW(folder->removeBookmarkAtIndex(1), gw::GWException);

  // An index valid for "Children" but not for the objects: the node goes in, the error is logged.
  folder->addBookmark(GWLumewayBookmark::initWithTitle("late", "u"), std::size_t(3));
  EXPECT_TRUE(log.contains("*** Caught exception:"));
  EXPECT_EQ(childrenOf(node).size(), 5u);
  EXPECT_EQ(folder->count(), 1u);
  folder->addBookmark(GWLumewayBookmark::initWithTitle("first", "u"), std::size_t(0));
  EXPECT_EQ(folder->bookmarkAtIndex(0)->title(), "first");
  EXPECT_EQ(childrenOf(node)[0].dictionary(),
            folder->bookmarkAtIndex(0)->dictionaryRepresentation());

  EXPECT_EQ(childrenOf(node).size(), 6u);

  folder->removeBookmarkAtIndex(0);
  EXPECT_EQ(childrenOf(node).size(), 5u);
  folder->removeBookmark(folder->bookmarkAtIndex(0));
  EXPECT_EQ(folder->count(), 0u);
  // Left: the three unknown nodes and "late", which never got an object.
  ASSERT_EQ(childrenOf(node).size(), 4u);
  EXPECT_EQ(childrenOf(node)[3].dictionary()->get("URLString"), Value("u"));
  EXPECT_EQ(childrenOf(node)[0].dictionary()->get("Title"), Value("History"));
}

TEST(BookmarkModelTest, HostileTreesEndWithoutCrashing) {
  gwtest::LogCapture log(0);
  // Children of the wrong type, and no Children at all.
  auto wrong = Dictionary::make({{"WebBookmarkType", "WebBookmarkTypeList"}, {"Children", "x"}});
  auto folder = GWLumewayBookmarkFolder::initWithDictionary(wrong);
  EXPECT_EQ(folder->count(), 0u);
  EXPECT_THROW(folder->addBookmark(GWLumewayBookmark::initWithTitle("t", "u")), gw::GWException);
  auto bare = Dictionary::make({{"WebBookmarkType", "WebBookmarkTypeList"}});
  auto bareFolder = GWLumewayBookmarkFolder::initWithDictionary(bare);
  bareFolder->addBookmark(GWLumewayBookmark::initWithTitle("t", "u"));
  EXPECT_EQ(childrenOf(bare).size(), 1u);

  // A folder node that holds itself (possible only in memory).
  auto loop = Dictionary::make({{"WebBookmarkType", "WebBookmarkTypeList"}, {"Title", "loop"}});
  loop->set("Children", Value::newArray({Value(loop), Value(leafNode("l", "u"))}));
  auto looped = GWLumewayBookmarkFolder::initWithDictionary(loop);
  EXPECT_EQ(looped->count(), 1u);
  EXPECT_TRUE(log.contains("holds itself"));
  loop->mutableEntries().erase("Children");  // break the cycle so the test does not leak it

  // A folder cannot be added into itself or below itself.
  auto outer = GWLumewayBookmarkFolder::initWithTitle("outer");
  auto inner = GWLumewayBookmarkFolder::initWithTitle("inner");
  outer->addBookmark(inner);
  inner->addBookmark(outer);
  outer->addBookmark(outer);
  EXPECT_EQ(inner->count(), 0u);
  EXPECT_EQ(outer->count(), 1u);

  // Deep nesting is cut off instead of recursing without bound.
  auto deepest = Dictionary::make({{"WebBookmarkType", "WebBookmarkTypeList"}, {"Title", "d"}});
  DictionaryRef top = deepest;
  for (int i = 0; i < 300; ++i) {
    top = Dictionary::make({{"WebBookmarkType", "WebBookmarkTypeList"},
                            {"Title", "d"},
                            {"Children", Value::newArray({Value(top)})}});
  }
  auto deep = GWLumewayBookmarkFolder::initWithDictionary(top);
  EXPECT_TRUE(log.contains("nested deeper than"));
  EXPECT_TRUE(deep->flatArray()->empty());

  // So is a path from a flat list: as deep as a reader takes is made, one folder more is refused.
  std::string path;
  for (unsigned i = 1; i < GWLumewayBookmarkFolder::kMaxFolderDepth; ++i) path += "/p";
  auto pathRoot = GWLumewayBookmarkFolder::initWithTitle("root");
  pathRoot->addBookmark(GWLumewayBookmark::initWithTitle("t", "u"), std::string_view(path));
  pathRoot->addBookmark(GWLumewayBookmark::initWithTitle("t", "u"), std::string_view(path + "/p/"));
  EXPECT_EQ(pathRoot->allBookmarks().size(), 1u);
  auto reread = GWLumewayBookmarkFolder::initWithDictionary(pathRoot->dictionaryRepresentation());
  EXPECT_EQ(reread->allBookmarks().size(), 1u);
}

TEST(BookmarkModelTest, FlatArrayGivesEachLeafItsFolderPath) {
  auto root = GWLumewayBookmarkFolder::initWithTitle("Bar");
  root->addBookmark(GWLumewayBookmark::initWithTitle("L1", "u1"));
  root->addBookmark(GWLumewayBookmark::initWithTitle("L2", "u2"), std::string_view("/A/"));
  root->addBookmark(GWLumewayBookmark::initWithTitle("L3", "u3"), std::string_view("/Local/News/"));
  root->addBookmark(GWLumewayBookmarkFolder::initWithTitle("Empty"));
  Value expected = Value::newArray({flatEntry("L1", "u1", "/"), flatEntry("L2", "u2", "/A/"),
                                    flatEntry("L3", "u3", "/Local/News/")});
  EXPECT_EQ(Value(root->flatArray()), expected);
  EXPECT_EQ(Value(root->flatArrayOLD()),
            Value::newArray({Value::newDictionary({{"pageTitle", "L1"}, {"address", "u1"}}),
                             Value::newDictionary({{"pageTitle", "L2"}, {"address", "u2"}}),
                             Value::newDictionary({{"pageTitle", "L3"}, {"address", "u3"}})}));

  // Round trip: titles, addresses and folder paths survive; UUIDs and empty folders do not.
  auto rebuilt = GWLumewayBookmarkFolder::bookmarkFolderWithFlatArray(root->flatArray());
  EXPECT_EQ(rebuilt->title(), "Bookmarks Bar");
  EXPECT_EQ(Value(rebuilt->flatArray()), expected);
  EXPECT_EQ(rebuilt->indexOfBookmarkFolderWithTitle("Empty"), -1);
  EXPECT_NE(rebuilt->allBookmarks()[0]->uuid(), root->allBookmarks()[0]->uuid());
}

TEST(BookmarkModelTest, FlatEntriesStopAtTheFirstMissingValue) {
  gwtest::LogCapture log(0);
  auto root = GWLumewayBookmarkFolder::initWithTitle("Bar");
  root->addBookmark(GWLumewayBookmark::initWithDictionary(
      Dictionary::make({{"WebBookmarkType", "WebBookmarkTypeLeaf"}, {"URLString", "no-title"}})));
  root->addBookmark(GWLumewayBookmark::initWithDictionary(
      Dictionary::make({{"WebBookmarkType", "WebBookmarkTypeLeaf"},
                        {"URIDictionary", Value::newDictionary({{"title", "no-address"}})}})));
  Value flat(root->flatArray());
  EXPECT_EQ(flat, Value::newArray({Value::newDictionary(),
                                   Value::newDictionary({{"pageTitle", "no-address"}})}));

  // The reverse skips both (no address) and names a title-less entry "Unknown".
  auto list = flat.array();
  list->append(Value::newDictionary({{"address", "https://x.example/"}}));
  list->append(Value(7));
  auto rebuilt = GWLumewayBookmarkFolder::bookmarkFolderWithFlatArray(list);
  ASSERT_EQ(rebuilt->count(), 1u);
  EXPECT_EQ(rebuilt->bookmarkAtIndex(0)->title(), "Unknown");
  EXPECT_EQ(log.lines().size(), 3u);
  EXPECT_TRUE(log.contains("*** Address was nil"));
}

TEST(BookmarkModelTest, KeyedCodingKeepsOneTree) {
  auto root = GWLumewayBookmarkFolder::initWithTitle("Bar");
  root->addBookmark(GWLumewayBookmark::initWithTitle("L1", "https://a.example/?q=é"),
                    std::string_view("/A/"));
  root->dictionaryRepresentation()->set("UnknownKey", Value::newArray({1, "two"}));
  for (auto format : {gw::plist::Format::Binary, gw::plist::Format::XML}) {
    auto archive = gw::archive::archivedDataWithRootObject(Value(root), format);
    ASSERT_FALSE(archive.empty());
    Value decoded = gw::archive::unarchiveObjectWithData(archive);
    auto folder = decoded.ifObject<GWLumewayBookmarkFolder>();
    ASSERT_TRUE(folder);
    EXPECT_EQ(Value(folder->dictionaryRepresentation()), Value(root->dictionaryRepresentation()));
    EXPECT_EQ(Value(folder->flatArray()), Value(root->flatArray()));
    // The objects still edit the decoded dictionaries in place.
    auto a = std::static_pointer_cast<GWLumewayBookmarkFolder>(folder->bookmarkAtIndex(0));
    a->bookmarkAtIndex(0)->setTitle("renamed");
    EXPECT_EQ(childrenOf(childrenOf(folder->dictionaryRepresentation())[0].dictionary())[0]
                  .dictionary()
                  ->get("URIDictionary")
                  .dictionary()
                  ->get("title"),
              Value("renamed"));
  }
  auto leafArchive =
      gw::archive::archivedDataWithRootObject(Value(GWLumewayBookmark::initWithTitle("t", "u")));
  auto leaf = gw::archive::unarchiveObjectWithData(leafArchive).ifObject<GWLumewayBookmark>();
  ASSERT_TRUE(leaf);
  EXPECT_FALSE(leaf->isFolder());
  EXPECT_EQ(leaf->url(), "u");
}

}  // namespace
