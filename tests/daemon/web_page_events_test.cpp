// The events the daemon records of page reports: bounded fields, and the user they are about.
#include <gatewise/core.h>
#include <gatewise/web.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "daemon/web/page_events.h"

namespace {

using gw::daemon::pageReportEvent;
using gw::plist::Value;

std::span<const std::uint8_t> bytes(std::string_view s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

std::string xml(const Value& v) { return *gw::plist::writePropertyList(v, gw::plist::Format::XML); }

TEST(WebPageEventsTest, VisitsAreRecordedWithBoundedFields) {
  std::string longURL = "http://example.com/" + std::string(10000, 'x');
  gw::daemon::Event visit = gw::daemon::visitedPageEvent(501, bytes(longURL), bytes("Title"));
  EXPECT_EQ(visit.entity, "VisitedPage");
  EXPECT_EQ(visit.uid, 501u);
  EXPECT_EQ(visit.fields["url"].string().size(), gw::daemon::kMaxRecordedURLBytes);
  EXPECT_EQ(visit.fields["title"], Value("Title"));
}

TEST(WebPageEventsTest, ReportsAreAboutTheCallerUnlessRootNamesTheUser) {
  std::string why;
  Value page = Value::newDictionary({{kWFURLKey, "http://games.example/"},
                                     {kWFPageTitleKey, "Games"},
                                     {kWFFilterDescriptionKey, "score 12 of 10"}});
  std::optional<gw::daemon::Event> blocked =
      pageReportEvent(gw::daemon::kEventBlockedPage, 501, bytes(xml(page)), &why);
  ASSERT_TRUE(blocked) << why;
  EXPECT_EQ(blocked->uid, 501u);
  EXPECT_EQ(blocked->fields["url"], Value("http://games.example/"));
  EXPECT_EQ(blocked->fields["title"], Value("Games"));
  EXPECT_EQ(blocked->fields["reason"], Value("score 12 of 10"));

  std::optional<gw::daemon::Event> override =
      pageReportEvent(gw::daemon::kEventWebOverride, 501, bytes(xml(page)), &why);
  ASSERT_TRUE(override);
  EXPECT_EQ(override->fields.size(), 1u);

  // Root speaks for the user it names; anyone else only for itself.
  std::string root = *GetUserShortNameForUID(0);
  page.dictionary()->set(kWFUsernameKey, root);
  EXPECT_TRUE(pageReportEvent(gw::daemon::kEventBlockedPage, 0, bytes(xml(page)), &why));
  EXPECT_FALSE(pageReportEvent(gw::daemon::kEventBlockedPage, 501, bytes(xml(page)), &why));
  EXPECT_EQ(why, "page description names another user");

  for (std::string payload : {std::string("<plist><array/></plist>"), std::string("garbage"),
                              xml(Value::newDictionary({{kWFPageTitleKey, "no URL"}})),
                              std::string(gw::daemon::kMaxPageReportBytes + 1, ' ')}) {
    EXPECT_FALSE(pageReportEvent(gw::daemon::kEventVisitedPage, 501, bytes(payload), &why));
  }
}

}  // namespace
