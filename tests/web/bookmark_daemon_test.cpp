// Managed bookmarks between the editor and the daemon: the client calls against a test daemon
// (what goes on the wire, how each answer is taken) and the daemon's checks of its callers.
#include <gatewise/bookmarks.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"
#include "web/bookmarks/bookmark_service.h"

namespace {

using gw::plist::Value;

constexpr char kRead[] = "_GWMIGLumewayReadExistingBookmarks";
constexpr char kWrite[] = "_GWMIGLumewayWriteBookmarks";

std::vector<std::uint8_t> bytesOf(const Value& v, gw::plist::Format format) {
  std::string s = *gw::plist::writePropertyList(v, format);
  return {s.begin(), s.end()};
}

std::string text(const std::vector<std::uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

class BookmarkDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "asks as root, about root";
  }
  gwtest::TempRoot root_;
  gwtest::LogCapture log_{2};
};

TEST_F(BookmarkDaemonTest, ReadingSendsTheUserAndTakesOnlyADictionary) {
  gwtest::TestDaemon daemon;
  Value file = Value::newDictionary({{"WebBookmarkUUID", "Root"}, {"Children", Value::newArray()}});
  daemon.answerData(kRead, bytesOf(file, gw::plist::Format::Binary));
  gw::plist::DictionaryRef got = gw::GWLumewayCopyExistingBookmarks("root", std::nullopt);
  ASSERT_TRUE(got);
  EXPECT_EQ(Value(got), file);
  ASSERT_EQ(daemon.requestCount(), 1u);
  gwtest::ReceivedRequest request = daemon.received()[0];
  EXPECT_EQ(request.routine, kRead);
  EXPECT_TRUE(request.bytes[0].empty());  // no authorization
  EXPECT_EQ(request.integers[1], 0);
  EXPECT_EQ(text(request.bytes[2]), "root");

  struct Case {
    std::vector<std::uint8_t> reply;
    std::string logged;
  } cases[] = {
      {bytesOf(Value::newArray({1}), gw::plist::Format::XML),
       "*** _GWMIGLumewayReadExistingBookmarks returned invalid object type: NSArray"},
      {{'<', 'p', 'l'}, "*** deserialization failed with error: "},
      {{}, "*** response was empty"},
  };
  for (const Case& c : cases) {
    log_.clear();
    daemon.answerData(kRead, c.reply);
    EXPECT_EQ(gw::GWLumewayCopyExistingBookmarks("root", std::nullopt), nullptr);
    EXPECT_TRUE(log_.contains(c.logged)) << c.logged;
  }
  log_.clear();
  daemon.answerError(kRead, 5);
  EXPECT_EQ(gw::GWLumewayCopyExistingBookmarks("root", gw::plist::Data{1}), nullptr);
  EXPECT_TRUE(log_.contains("*** response was empty"));
}

TEST_F(BookmarkDaemonTest, RefusalsAreDecidedBeforeTheDaemonIsAsked) {
  gwtest::TestDaemon daemon;
  EXPECT_EQ(gw::GWLumewayCopyExistingBookmarks("no-such-user-here", std::nullopt), nullptr);
  EXPECT_TRUE(log_.contains("*** Couldn't find uid for no-such-user-here"));
  // Without an authorization only root may ask.
  int status = gwtest::runInChild([] {
    if (!gwtest::dropToUnprivilegedUser()) return 100;
    gwtest::LogCapture log(0);
    if (gw::GWLumewayCopyExistingBookmarks("root", std::nullopt)) return 1;
    gw::GWLumewayWriteBookmarks("root", gw::plist::Dictionary::make(), std::nullopt);
    return log.lines().size() == 2 && log.contains("*** Called with invalid credentials.") ? 0 : 2;
  });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(daemon.requestCount(), 0u);
}

TEST_F(BookmarkDaemonTest, WritingSendsTheBookmarksAsXMLWithTheAuthorization) {
  gwtest::TestDaemon daemon;
  auto bookmarks = gw::plist::Dictionary::make({{"Title", "a & <b>"}});
  gw::GWLumewayWriteBookmarks("root", bookmarks, gw::plist::Data{7, 8, 9});
  ASSERT_EQ(daemon.requestCount(), 1u);
  gwtest::ReceivedRequest request = daemon.received()[0];
  EXPECT_EQ(request.routine, kWrite);
  gw::plist::ReadResult sent =
      gw::plist::readPropertyList(std::span<const std::uint8_t>(request.bytes[0]));
  ASSERT_TRUE(sent);
  EXPECT_EQ(sent.format, gw::plist::Format::XML);
  EXPECT_EQ(*sent.value, Value(bookmarks));
  EXPECT_EQ(request.bytes[1], (std::vector<std::uint8_t>{7, 8, 9}));
  EXPECT_EQ(request.integers[2], 0);
  EXPECT_EQ(text(request.bytes[3]), "root");

  // What cannot be written as a property list is not sent.
  bookmarks->set("object", Value(gw::GWLumewayBookmark::initWithTitle("t", "u")));
  gw::GWLumewayWriteBookmarks("root", bookmarks, gw::plist::Data{});
  EXPECT_TRUE(log_.contains("*** serialization failed with error: "));
  EXPECT_EQ(daemon.requestCount(), 1u);
}

TEST_F(BookmarkDaemonTest, TheDaemonWritesForRootAndReadsForTheUserOnly) {
  namespace bm = gw::bookmarks;
  auto file = bytesOf(Value::newDictionary({{"Title", ""}}), gw::plist::Format::XML);
  EXPECT_EQ(bm::writeBookmarksForPeer(1000, 0, "root", file), bm::kBookmarksRefused);
  EXPECT_EQ(bm::readBookmarksForPeer(1000, 0, "root").returnCode, bm::kBookmarksRefused);
  // The uid and the name must name one account; names never reach outside a folder.
  EXPECT_EQ(bm::writeBookmarksForPeer(0, 1234, "root", file), bm::kBookmarksBadRequest);
  EXPECT_EQ(bm::readBookmarksForPeer(0, 0, "..").returnCode, bm::kBookmarksBadRequest);
  EXPECT_EQ(bm::readBookmarksForPeer(0, 0, "root/x").returnCode, bm::kBookmarksBadRequest);
  // Only a dictionary is written.
  auto array = bytesOf(Value::newArray({1}), gw::plist::Format::XML);
  EXPECT_EQ(bm::writeBookmarksForPeer(0, 0, "root", array), bm::kBookmarksBadRequest);
  std::vector<std::uint8_t> huge(bm::kMaxServedBookmarksSize + 1, ' ');
  EXPECT_EQ(bm::writeBookmarksForPeer(0, 0, "root", huge), bm::kBookmarksBadRequest);
  EXPECT_TRUE(log_.contains("*** uid 1000 may not write bookmarks"));
  EXPECT_TRUE(log_.contains("*** uid 1000 may not read the bookmarks of root"));
}

}  // namespace
