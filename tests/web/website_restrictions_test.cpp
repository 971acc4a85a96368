// The browser's side: website restrictions from the preference, and the reports it sends.
#include <gatewise/ipc.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"
#include "web_test_support.h"

namespace {

using gw::plist::Value;
using gwtest::TestDaemon;
using gwtest::web::strings;

class WebsiteRestrictionsTest : public ::testing::Test {
 protected:
  void write(std::initializer_list<std::pair<std::string, Value>> entries) {
    gwtest::web::writeContentFilterPreference(root_, "kid", Value::newDictionary(entries));
  }
  gwtest::TempRoot root_;
};

TEST_F(WebsiteRestrictionsTest, RestrictedOnlyToANonEmptyWhiteListWithoutTheContentFilter) {
  Value sites = strings({"http://school.example/"});
  Value folder = Value::newDictionary({{"Title", "Sites"}, {"Children", strings({"x"})}});
  struct Case {
    std::initializer_list<std::pair<std::string, Value>> preference;
    bool restricted;
  } cases[] = {
      {{{"restrictWeb", true}, {"siteWhitelist", sites}}, true},
      {{{"restrictWeb", true}, {"useContentFilter", false}, {"siteWhitelist", folder}}, true},
      // Content filtering takes precedence over the white list.
      {{{"restrictWeb", true}, {"useContentFilter", true}, {"siteWhitelist", sites}}, false},
      {{{"restrictWeb", true}, {"siteWhitelist", strings({})}}, false},
      {{{"restrictWeb", true}}, false},
      {{{"restrictWeb", false}, {"siteWhitelist", sites}}, false},
      {{{"siteWhitelist", sites}}, false},
  };
  for (const Case& c : cases) {
    write(c.preference);
    SCOPED_TRACE(gw::plist::description(Value::newDictionary(c.preference)));
    EXPECT_EQ(GWLumewayHasWebSiteRestrictions("kid"), c.restricted);
    Value list = GWLumewayGetWhiteListForUser("kid");
    EXPECT_EQ(list.isNull(), !c.restricted);
  }
  write({{"restrictWeb", true}, {"siteWhitelist", sites}});
  EXPECT_EQ(GWLumewayGetWhiteListForUser("kid"), sites);
  // No file, another user's name, a name that is not one path component: no restrictions.
  EXPECT_FALSE(GWLumewayHasWebSiteRestrictions("other"));
  EXPECT_FALSE(GWLumewayHasWebSiteRestrictions("../kid"));
  root_.writeFile("/Library/Managed Preferences/kid/com.morvane.gatewise.contentfilter.plist",
                  "not a property list");
  EXPECT_FALSE(GWLumewayHasWebSiteRestrictions("kid"));
}

TEST_F(WebsiteRestrictionsTest, LogsAtTheirLevelsAndRetiredEntriesChangeNothing) {
  write({{"restrictWeb", true}, {"siteWhitelist", strings({"http://a/"})}});
  gwtest::LogCapture log(2);
  EXPECT_TRUE(GWLumewayHasWebSiteRestrictions("kid"));
  EXPECT_TRUE(log.contains("GWLumewayHasWebSiteRestrictions [") && log.contains("-- user: kid"));
  EXPECT_TRUE(log.contains("-- returning YES"));
  GWLumewayAddToWhiteList(strings({"http://b/"}), "kid");
  GWLumewayRemoveFromWhiteList(Value("http://a/"), "kid");
  EXPECT_TRUE(log.contains("-- *** No longer supported. Use GWLumewayWriteBookmarks instead."));
  EXPECT_TRUE(log.contains("-- *** No longer supported."));
  EXPECT_EQ(GWLumewayGetWhiteListForUser("kid"), strings({"http://a/"}));
}

TEST_F(WebsiteRestrictionsTest, BlockedPagesReachTheDaemonAsXMLDescriptions) {
  TestDaemon daemon;
  GWLumewayPageWasBlocked(std::nullopt, "http://games.example/");
  GWLumewayPageWasBlocked("Games", "http://games.example/2");
  ASSERT_TRUE(daemon.waitForRequests(2));
  std::vector<gwtest::ReceivedRequest> received = daemon.received();
  std::vector<Value> pages;
  for (const gwtest::ReceivedRequest& r : received) {
    EXPECT_EQ(r.routine, "_GWMIGContentFilterPageWasBlocked");
    gw::plist::ReadResult read = gw::plist::readPropertyList(r.bytes[0]);
    ASSERT_TRUE(read);
    EXPECT_EQ(read.format, gw::plist::Format::XML);
    pages.push_back(*read.value);
  }
  EXPECT_EQ(pages[0], Value::newDictionary(
                          {{kWFPageTitleKey, "Unknown"}, {kWFURLKey, "http://games.example/"}}));
  EXPECT_EQ(pages[1], Value::newDictionary(
                          {{kWFPageTitleKey, "Games"}, {kWFURLKey, "http://games.example/2"}}));

  gwtest::LogCapture log(0);
  GWLumewayPageWasBlocked("Title", std::nullopt);
  EXPECT_TRUE(log.contains("-- invalid param"));
  EXPECT_EQ(daemon.requestCount(), 2u);
}

TEST_F(WebsiteRestrictionsTest, VisitsCarryTheRealUidTheAddressOutOfLineAndTheTitleInline) {
  TestDaemon daemon;
  GWLumewayVisitedPage("Süß", "http://example.com/ü?q=1");
  ASSERT_TRUE(daemon.waitForRequests(1));
  gwtest::ReceivedRequest visit = daemon.received()[0];
  EXPECT_EQ(visit.routine, "_GWMIGLumewayVisitedPage");
  EXPECT_EQ(std::string(visit.bytes[0].begin(), visit.bytes[0].end()), "http://example.com/ü?q=1");
  EXPECT_EQ(visit.integers[1], std::int64_t(::getuid()));
  EXPECT_EQ(std::string(visit.bytes[2].begin(), visit.bytes[2].end()), "Süß");

  // A title over 1024 bytes does not fit the message: the visit goes unrecorded.
  GWLumewayVisitedPage(std::string(1025, 't'), "http://example.com/");
  GWLumewayVisitedPage(std::string(1024, 't'), "http://example.com/long");
  ASSERT_TRUE(daemon.waitForRequests(2));
  EXPECT_EQ(daemon.received()[1].bytes[2].size(), 1024u);

  gwtest::LogCapture log(0);
  GWLumewayVisitedPage(std::nullopt, "http://example.com/");
  GWLumewayVisitedPage("t", std::nullopt);
  GWLumewayVisitedPage("t", std::string("http://\xC3(", 9));
  EXPECT_TRUE(log.contains("-- invalid param"));
  EXPECT_TRUE(log.contains("-- couldn't convert param to c string"));
  EXPECT_TRUE(daemon.waitUntilIdle());
  EXPECT_EQ(daemon.requestCount(), 2u);
}

TEST_F(WebsiteRestrictionsTest, ReportsWithoutADaemonVanish) {
  gwtest::web::StderrCapture capture;
  GWLumewayVisitedPage("t", "http://example.com/");
  GWContentFilterPageWasBlocked(gwtest::web::pageMeta("http://example.com/"));
  EXPECT_EQ(capture.text(), "GWContentFilterPageWasBlocked: Daemon doesn't appear to be running\n");
}

}  // namespace
