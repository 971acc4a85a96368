#include <gatewise/archive.h>
#include <gatewise/status.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gw::GWStatusItem;
using gw::plist::Date;
using gw::plist::Value;

class StatusItemsFetchTest : public ::testing::Test {
 protected:
  gwtest::TempRoot root_;
  gwtest::LogCapture log_{2};
};

TEST_F(StatusItemsFetchTest, WithoutADaemonTheAnswerIsNil) {
  EXPECT_EQ(gw::GWGetStatusItems(), nullptr);
}

TEST_F(StatusItemsFetchTest, TheDaemonsItemsComeBackAsItArchivedThem) {
  gwtest::TestDaemon daemon;
  // No items: an empty region.
  auto none = gw::GWGetStatusItems();
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->empty());
  ASSERT_EQ(daemon.requestCount(), 1u);
  EXPECT_EQ(daemon.received()[0].routine, "_GWMIGGetStatusItems");

  auto warning =
      GWStatusItem::initWithName("Computer", std::string(gw::kGWItemKindComputer), Date{1000});
  warning->setItemCreationDate(Date{700});
  auto alert = GWStatusItem::initWithName("Chess", std::string(gw::kGWItemKindProgram), Date{5});
  alert->setStatusKind(std::string(gw::kGWStatusKindBlacklisted));
  alert->setPid(4242);
  daemon.answerData("_GWMIGGetStatusItems",
                    gw::archive::archivedDataWithRootObject(Value::newArray({warning, alert})));
  auto two = gw::GWGetStatusItems();
  ASSERT_TRUE(two);
  ASSERT_EQ(two->size(), 2u);
  auto first = two->at(0).ifObject<GWStatusItem>();
  auto second = two->at(1).ifObject<GWStatusItem>();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->itemName(), "Computer");
  EXPECT_EQ(first->timeFromCreation(), 300);
  EXPECT_EQ(second->pid(), 4242);
  EXPECT_EQ(second->title(), "Application Not Allowed");

  // Answers that are not an archive of an array, and failed calls, give an empty array.
  daemon.answerData("_GWMIGGetStatusItems", {'n', 'o', 'p', 'e'});
  auto junk = gw::GWGetStatusItems();
  ASSERT_TRUE(junk);
  EXPECT_TRUE(junk->empty());
  EXPECT_TRUE(log_.contains("*** Not a keyed archive"));
  daemon.answerData("_GWMIGGetStatusItems", gw::archive::archivedDataWithRootObject(Value("x")));
  auto notArray = gw::GWGetStatusItems();
  ASSERT_TRUE(notArray);
  EXPECT_TRUE(notArray->empty());
  daemon.answerError("_GWMIGGetStatusItems", 5);
  auto failed = gw::GWGetStatusItems();
  ASSERT_TRUE(failed);
  EXPECT_TRUE(failed->empty());
  EXPECT_TRUE(log_.contains("_GWMIGGetStatusItems failed with error 5."));
}

TEST_F(StatusItemsFetchTest, ADaemonThatDiesMidAnswerGivesAnEmptyArray) {
  gwtest::TestDaemon daemon;
  daemon.misbehave("_GWMIGGetStatusItems", gwtest::Misbehaviour::CloseWithoutReply);
  auto items = gw::GWGetStatusItems();
  ASSERT_TRUE(items);
  EXPECT_TRUE(items->empty());
  EXPECT_TRUE(log_.contains("_GWMIGGetStatusItems failed with error -308."));
}

}  // namespace
