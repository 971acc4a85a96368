// The content filter: the allow and deny lists decided here, the filter service asked otherwise,
// and every way of failing open with its standard-error line.
#include "web/content_filter.h"

#include <gatewise/ipc.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "platform/fs/unique_fd.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"
#include "web_test_support.h"

namespace {

using gw::plist::Value;
using gwtest::Misbehaviour;
using gwtest::TestDaemon;
using gwtest::web::pageBytes;
using gwtest::web::pageMeta;
using gwtest::web::StderrCapture;
using gwtest::web::strings;
using namespace std::chrono_literals;

class ContentFilterTest : public ::testing::Test {
 protected:
  void SetUp() override { gUserName = "kid"; }

  void writeLists(Value white, Value black) {
    Value preference = Value::newDictionary({{"restrictWeb", true}, {"useContentFilter", true}});
    if (!white.isNull()) preference.dictionary()->set("filterWhitelist", white);
    if (!black.isNull()) preference.dictionary()->set("filterBlacklist", black);
    gwtest::web::writeContentFilterPreference(root_, "kid", preference);
  }

  static bool wantsToBlock(const Value& verdict) {
    return verdict.dictionary()->get(kWFFilterWantsToBlockKey).boolValue();
  }

  gwtest::TempRoot root_;
  gwtest::web::FilterStateReset reset_;
};

TEST_F(ContentFilterTest, OnListMatchesBeginningsIgnoringCaseAndNothingElse) {
  StderrCapture capture;
  struct Case {
    const char* url;
    const char* entry;
    bool matches;
  } cases[] = {
      {"http://example.com/a", "http://example.com", true},
      {"HTTP://EXAMPLE.COM/a", "http://example.com", true},
      {"http://example.com/a", "HTTP://Example.Com/", true},
      // No boundary after the entry: a longer host with the same beginning matches too.
      {"http://example.com.evil.org/", "http://example.com", true},
      {"http://example.com:8080/x", "http://example.com", true},
      {"http://example.com/", "http://example.com:8080", false},
      // A host alone never matches a URL written with its scheme, nor is the entry looked for
      // inside.
      {"http://example.com/", "example.com", false},
      {"https://example.com/", "http://example.com", false},
      {"http://a.example/?next=http://example.com", "http://example.com", false},
      // Written forms are compared as they stand: no percent-decoding, no IDN conversion.
      {"http://example.com/%41", "http://example.com/A", false},
      {"http://example.com/%41", "http://example.com/%41", true},
      {"http://xn--bcher-kva.example/", "http://bücher.example", false},
      {"http://BÜCHER.example/", "http://bücher.example", true},
      {"file:///home/kid", "FILE://", true},
      {"", "http://", false},
      {"http://", "", false},  // an empty entry matches nothing, not everything
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.url) + " against " + c.entry);
    EXPECT_EQ(OnList(Value(c.url), strings({c.entry})), c.matches);
  }
  EXPECT_TRUE(
      OnList(Value("http://b.example/"), strings({"http://a.example", "http://b.example"})));
  // Entries that are not strings are passed over; a list that is not an array matches nothing.
  Value mixed = Value::newArray({Value(7), Value::newDictionary(), Value("http://b.example")});
  EXPECT_TRUE(OnList(Value("http://b.example/"), mixed));
  EXPECT_FALSE(OnList(Value("http://b.example/"), Value("http://b.example")));
  EXPECT_FALSE(OnList(Value(), strings({"http://b.example"})));
  EXPECT_NE(capture.text().find("OnList for incoming: http://example.com/a\nAgainst list: (\n"),
            std::string::npos);
}

TEST_F(ContentFilterTest, WhiteListWinsOverBlackListAndLocalVerdictsCarryOneKey) {
  writeLists(strings({"http://school.example/", "http://both.example"}),
             strings({"http://both.example", "http://games.example"}));
  TestDaemon service(gw::ipc::Service::WebFilter);
  StderrCapture capture;

  Value allowed = GWCopyContentEvaluation(pageBytes("page"), pageMeta("http://Both.example/x"));
  ASSERT_TRUE(allowed.isDictionary());
  EXPECT_EQ(allowed, Value::newDictionary({{kWFFilterWantsToBlockKey, false}}));

  Value blocked = GWCopyContentEvaluation(pageBytes("page"), pageMeta("http://games.example/1"));
  EXPECT_EQ(blocked, Value::newDictionary({{kWFFilterWantsToBlockKey, true}}));

  // A white-listed page needs no content at all, and writes no complaint.
  Value noContent = GWCopyContentEvaluation(Value(), pageMeta("http://school.example/maths"));
  EXPECT_EQ(noContent, Value::newDictionary({{kWFFilterWantsToBlockKey, false}}));
  EXPECT_EQ(capture.text().find("GWCopyContentEvaluation:"), std::string::npos);
  EXPECT_EQ(service.requestCount(), 0u);

  // Unlisted without content: refused before the service is asked.
  EXPECT_TRUE(GWCopyContentEvaluation(Value(), pageMeta("http://other.example/")).isNull());
  EXPECT_NE(capture.text().find("GWCopyContentEvaluation: pageContent was NULL\n"),
            std::string::npos);
  EXPECT_EQ(service.requestCount(), 0u);
}

TEST_F(ContentFilterTest, UnlistedPagesGoToTheServiceWithTheirBytesAndDescription) {
  writeLists(strings({"http://school.example/"}), strings({"http://games.example"}));
  TestDaemon service(gw::ipc::Service::WebFilter);
  Value answer = Value::newDictionary({{kWFFilterWantsToBlockKey, true},
                                       {kWFFilterRestrictedScoreKey, 42},
                                       {kWFFilterDescriptionKey, "too much"}});
  std::string xml = *gw::plist::writePropertyList(answer, gw::plist::Format::XML);
  service.answerData("_WFMIGEvalutePageContent", {xml.begin(), xml.end()});

  Value meta = pageMeta("http://other.example/");
  meta.dictionary()->set(kWFPageTitleKey, "Other");
  Value verdict = GWCopyContentEvaluation(pageBytes("<p>hello</p>"), meta);
  EXPECT_EQ(verdict, answer);
  ASSERT_EQ(service.requestCount(), 1u);
  gwtest::ReceivedRequest request = service.received()[0];
  EXPECT_EQ(request.routine, "_WFMIGEvalutePageContent");
  EXPECT_EQ(std::string(request.bytes[0].begin(), request.bytes[0].end()), "<p>hello</p>");
  gw::plist::ReadResult sentMeta = gw::plist::readPropertyList(request.bytes[1]);
  ASSERT_TRUE(sentMeta);
  EXPECT_EQ(sentMeta.format, gw::plist::Format::XML);
  EXPECT_EQ(*sentMeta.value, meta);
}

TEST_F(ContentFilterTest, ListsLoadOnceAndOnlyWhenBothAreThere) {
  // Only a white list: no local decision, and the lists are tried again on the next call.
  writeLists(strings({"http://school.example/"}), Value());
  StderrCapture capture;
  EXPECT_TRUE(GWCopyContentEvaluation(pageBytes("x"), pageMeta("http://school.example/")).isNull());
  EXPECT_NE(capture.text().find("CopyContentFilterPlistValueForKey: value was NULL\n"),
            std::string::npos);
  EXPECT_NE(capture.text().find("GWCopyContentEvaluation: Daemon doesn't appear to be running\n"),
            std::string::npos);
  EXPECT_FALSE(gWebWhiteList.isNull());
  EXPECT_TRUE(gWebBlackList.isNull());

  writeLists(strings({"http://school.example/"}), strings({"http://games.example"}));
  EXPECT_EQ(GWCopyContentEvaluation(Value(), pageMeta("http://games.example/")),
            Value::newDictionary({{kWFFilterWantsToBlockKey, true}}));
  // Loaded now, and kept: a changed preference is not seen by this process.
  writeLists(strings({"http://games.example"}), strings({}));
  EXPECT_EQ(GWCopyContentEvaluation(Value(), pageMeta("http://games.example/")),
            Value::newDictionary({{kWFFilterWantsToBlockKey, true}}));
}

TEST_F(ContentFilterTest, ThreadsRacingToLoadTheListsAllGetTheirVerdicts) {
  writeLists(strings({"http://school.example/"}), strings({"http://games.example"}));
  StderrCapture capture;
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&right, i] {
      bool games = i % 2 == 0;
      Value verdict = GWCopyContentEvaluation(
          Value(), pageMeta(games ? "http://games.example/" : "http://school.example/"));
      if (verdict == Value::newDictionary({{kWFFilterWantsToBlockKey, games}})) ++right;
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(right.load(), 8);
  // No thread found a list half loaded and went on to the (absent) service.
  EXPECT_EQ(capture.text().find("GWCopyContentEvaluation:"), std::string::npos);
}

TEST_F(ContentFilterTest, PreferenceReadFailuresEachWriteTheirLine) {
  StderrCapture capture;
  EXPECT_TRUE(CopyContentFilterPlistValueForKey("filterWhitelist").isNull());
  EXPECT_NE(capture.text().find("CopyContentFilterPlistValueForKey: couldn't open plist stream\n"),
            std::string::npos);

  root_.writeFile("/Library/Managed Preferences/kid/com.morvane.gatewise.contentfilter.plist",
                  "<plist><dict><key>x</key>");
  EXPECT_TRUE(CopyContentFilterPlistValueForKey("filterWhitelist").isNull());
  std::string text = capture.text();
  std::size_t at = text.find(
      "CopyContentFilterPlistValueForKey: contentFilterPrefs was NULL\n"
      "CFPropertyListCreateFromXMLData said:\n");
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(text.back(), '\n');

  gUserName = "../etc";
  EXPECT_TRUE(CopyContentFilterPlistValueForKey("filterWhitelist").isNull());
  EXPECT_NE(capture.text().find("CopyContentFilterPlistValueForKey: plistPath was NULL\n"),
            std::string::npos);

  // Either encoding is read.
  gUserName = "kid";
  gwtest::web::writeContentFilterPreference(
      root_, "kid", Value::newDictionary({{"filterWhitelist", strings({"http://a/"})}}),
      gw::plist::Format::Binary);
  EXPECT_EQ(CopyContentFilterPlistValueForKey("filterWhitelist"), strings({"http://a/"}));
}

TEST_F(ContentFilterTest, AbsentDeadOrSlowServiceGivesNoVerdictWithinTheTimeOut) {
  writeLists(strings({"http://school.example/"}), strings({"http://games.example"}));
  Value page = pageBytes("page");
  Value meta = pageMeta("http://other.example/");
  {
    StderrCapture capture;
    EXPECT_TRUE(GWCopyContentEvaluation(page, meta).isNull());
    EXPECT_TRUE(GWCopyContentEvaluation(page, Value()).isNull());
    std::string text = capture.text();
    EXPECT_NE(text.find("GWCopyContentEvaluation: Daemon doesn't appear to be running\n"),
              std::string::npos);
    EXPECT_NE(text.find("GWCopyContentEvaluation: pageMeta was NULL\n"), std::string::npos);
  }
  {
    // A listener that never accepts: the request fits the socket buffer and no reply ever comes.
    std::string path = root_.makeFolder("/run/gatewise/bootstrap") + "/com.morvane.webfilter";
    gw::fs::UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener.get(), 4), 0);
    StderrCapture capture;
    EXPECT_TRUE(GWCopyContentEvaluation(page, meta).isNull());
    EXPECT_TRUE(GWCopyPageDump(page, meta) == std::nullopt);
    std::string text = capture.text();
    EXPECT_NE(text.find("GWCopyContentEvaluation: MIG error 268451843\n"), std::string::npos);
    EXPECT_NE(text.find("GWCopyPageDump: MIG error 268451843\n"), std::string::npos);
    ::unlink(path.c_str());
  }
  TestDaemon service(gw::ipc::Service::WebFilter);
  struct Case {
    Misbehaviour how;
    std::chrono::milliseconds delay;
    const char* line;
  } cases[] = {
      // Three seconds late: the 1000 ms time-out ends the wait first.
      {Misbehaviour::Delay, 3s, "GWCopyContentEvaluation: MIG error 268451843\n"},
      {Misbehaviour::CloseWithoutReply, 0s, "GWCopyContentEvaluation: MIG error -308\n"},
      {Misbehaviour::WrongId, 0s, "GWCopyContentEvaluation: MIG error -301\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    service.misbehave("_WFMIGEvalutePageContent", c.how, c.delay);
    StderrCapture capture;
    EXPECT_TRUE(GWCopyContentEvaluation(page, meta).isNull());
    EXPECT_NE(capture.text().find(c.line), std::string::npos);
  }
  service.misbehave("_WFMIGEvalutePageContent", Misbehaviour::None);
  service.answerError("_WFMIGEvalutePageContent", 5);
  StderrCapture capture;
  EXPECT_TRUE(GWCopyContentEvaluation(page, meta).isNull());
  EXPECT_NE(capture.text().find("GWCopyContentEvaluation: MIG error 5\n"), std::string::npos);
}

TEST_F(ContentFilterTest, RepliesThatAreNotVerdictsGiveNull) {
  writeLists(strings({}), strings({}));
  TestDaemon service(gw::ipc::Service::WebFilter);
  Value page = pageBytes("page");
  Value meta = pageMeta("http://other.example/");
  StderrCapture capture;
  service.answerData("_WFMIGEvalutePageContent", {});
  EXPECT_TRUE(GWCopyContentEvaluation(page, meta).isNull());
  EXPECT_NE(
      capture.text().find("GWCopyContentEvaluation: _WFMIGEvalutePageContent returned NULL data\n"),
      std::string::npos);
  std::string garbage = "<plist><dict>";
  service.answerData("_WFMIGEvalutePageContent", {garbage.begin(), garbage.end()});
  EXPECT_TRUE(GWCopyContentEvaluation(page, meta).isNull());
  EXPECT_NE(capture.text().find(
                "GWCopyContentEvaluation: CFPropertyListCreateFromXMLData returned NULL\n"),
            std::string::npos);
  // A description that cannot be written as XML never leaves the process.
  Value unwritable = pageMeta("http://other.example/");
  unwritable.dictionary()->set("null", Value());
  EXPECT_TRUE(GWCopyContentEvaluation(page, unwritable).isNull());
  EXPECT_NE(
      capture.text().find("GWCopyContentEvaluation: CFPropertyListCreateXMLData returned NULL\n"),
      std::string::npos);
  EXPECT_EQ(service.requestCount(), 2u);
}

TEST_F(ContentFilterTest, PageDumpIsTheServiceTextOrNullWithItsLine) {
  Value page = pageBytes("page");
  Value meta = pageMeta("http://other.example/");
  StderrCapture capture;
  EXPECT_EQ(GWCopyPageDump(page, meta), std::nullopt);
  EXPECT_NE(capture.text().find("GWCopyPageDump: Daemon doesn't appear to be running\n"),
            std::string::npos);

  TestDaemon service(gw::ipc::Service::WebFilter);
  std::string text = "url: http://other.example/\nscore 0 — ok\n";
  service.answerData("_WFMIGGetPageDump", {text.begin(), text.end()});
  EXPECT_EQ(GWCopyPageDump(page, meta), text);
  ASSERT_EQ(service.requestCount(), 1u);
  EXPECT_EQ(service.received()[0].routine, "_WFMIGGetPageDump");

  service.answerData("_WFMIGGetPageDump", {0xC3, 0x28});
  EXPECT_EQ(GWCopyPageDump(page, meta), std::nullopt);
  EXPECT_NE(capture.text().find("GWCopyPageDump: Couldn't create string from external data\n"),
            std::string::npos);
  service.answerData("_WFMIGGetPageDump", {});
  EXPECT_EQ(GWCopyPageDump(page, meta), std::nullopt);
  EXPECT_NE(capture.text().find("GWCopyPageDump: _WFMIGGetPageDump returned NULL data\n"),
            std::string::npos);
  EXPECT_EQ(GWCopyPageDump(page, Value()), std::nullopt);
  EXPECT_NE(capture.text().find("GWCopyPageDump: CFPropertyListCreateXMLData returned NULL\n"),
            std::string::npos);
}

}  // namespace
