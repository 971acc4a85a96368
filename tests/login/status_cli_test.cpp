// `gatewise status-items`, run as a program against the test daemon and archive files.
#include <gatewise/archive.h>
#include <gatewise/status.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>

#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gw::plist::Date;
using gw::plist::Value;
using gwtest::runCli;

class StatusCliTest : public ::testing::Test {
 protected:
  gwtest::TempRoot root_;
};

std::vector<std::uint8_t> twoItems() {
  double now = Date::now().secondsSinceReferenceDate;
  auto warning = gw::GWStatusItem::initWithName("Computer", std::string(gw::kGWItemKindComputer),
                                                Date{now + 3600});
  warning->setItemCreationDate(Date{now + 3600 - 118});
  auto alert = gw::GWStatusItem::initWithName("Chess", std::string(gw::kGWItemKindProgram),
                                              Date{now - 10.5});
  alert->setStatusKind(std::string(gw::kGWStatusKindCouldNotQuit));
  return gw::archive::archivedDataWithRootObject(Value::newArray({warning, alert}));
}

// The printed blocks with the remaining seconds blanked, and those seconds in order.
std::string withoutSeconds(const std::string& out, std::vector<long>* seconds) {
  std::regex remaining(R"(remaining: (-?\d+))");
  for (std::sregex_iterator it(out.begin(), out.end(), remaining), end; it != end; ++it)
    seconds->push_back(std::stol((*it)[1]));
  return std::regex_replace(out, remaining, "remaining: S");
}

const char kTwoBlocks[] =
    "title: Warning\n"
    "message: Only 2 minutes remains for the computer \"Computer\".\n"
    "kind: -\n"
    "item: Computer\n"
    "remaining: S\n"
    "\n"
    "title: Application Did Not Quit\n"
    "message: The application Chess did not quit. You have 60 seconds to save your work before "
    "the application will be forced to quit.\n"
    "kind: GatewiseStatusKindCouldNotQuit\n"
    "item: Chess\n"
    "remaining: S\n";

TEST_F(StatusCliTest, PrintsTheDaemonsItemsOneBlockEach) {
  auto absent = runCli({"status-items"});
  EXPECT_EQ(absent.status, 1);
  EXPECT_EQ(absent.out, "");

  gwtest::TestDaemon daemon;
  auto none = runCli({"status-items"});
  EXPECT_EQ(none.status, 0);
  EXPECT_EQ(none.out, "");

  daemon.answerData("_GWMIGGetStatusItems", twoItems());
  auto run = runCli({"status-items"});
  EXPECT_EQ(run.status, 0) << run.err;
  std::vector<long> seconds;
  EXPECT_EQ(withoutSeconds(run.out, &seconds), kTwoBlocks);
  ASSERT_EQ(seconds.size(), 2u);
  EXPECT_GT(seconds[0], 3500);
  EXPECT_LE(seconds[0], 3599);  // truncated, never rounded up
  EXPECT_LE(seconds[1], -10);   // -10.5 and a little more truncates to -10 or beyond
  EXPECT_GT(seconds[1], -100);
}

TEST_F(StatusCliTest, ReadsArchiveFilesAndRefusesAnythingElse) {
  auto bytes = twoItems();
  std::string file = root_.writeFile("/items.archive", std::string(bytes.begin(), bytes.end()));
  auto run = runCli({"status-items", "--archive", file});
  EXPECT_EQ(run.status, 0) << run.err;
  std::vector<long> seconds;
  EXPECT_EQ(withoutSeconds(run.out, &seconds), kTwoBlocks);

  auto plainArray = gw::archive::archivedDataWithRootObject(Value::newArray({"not an item"}));
  struct Case {
    std::string name, contents;
  } cases[] = {{"text", "hello"},
               {"plain-array", std::string(plainArray.begin(), plainArray.end())},
               {"empty", ""}};
  for (const Case& c : cases) {
    std::string path = root_.writeFile("/" + c.name, c.contents);
    auto refused = runCli({"status-items", "--archive", path});
    EXPECT_EQ(refused.status, 2) << c.name;
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
    EXPECT_NE(refused.err.find(path), std::string::npos);
  }
  EXPECT_EQ(runCli({"status-items", "--archive", root_.at("/missing")}).status, 2);
}

TEST_F(StatusCliTest, WritesArchivesTheLibraryReadsBack) {
  std::string out = root_.at("/made.archive");
  auto made = runCli({"status-items", "archive", out, "--xml", "--item", "group,Games,curfew,60",
                      "--item", "computer,Computer,-,300"});
  ASSERT_EQ(made.status, 0) << made.err;
  std::ifstream in(out, std::ios::binary);
  std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(in), {});
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 5), "<?xml");
  Value items = gw::archive::unarchiveObjectWithData(bytes);
  ASSERT_TRUE(items.isArray());
  ASSERT_EQ(items.array()->size(), 2u);
  auto games = items.array()->at(0).ifObject<gw::GWStatusItem>();
  auto computer = items.array()->at(1).ifObject<gw::GWStatusItem>();
  ASSERT_TRUE(games && computer);
  EXPECT_EQ(games->itemKind(), gw::kGWItemKindGroup);
  EXPECT_EQ(games->statusKind(), std::string(gw::kGWStatusKindCurfewUnallowed));
  EXPECT_EQ(games->itemID(), "item-1");
  EXPECT_EQ(computer->timeFromCreation(), 300);
  EXPECT_FALSE(computer->statusKind());

  for (const char* bad : {"group,Games,curfew", "group,,-,5", "group,Games,-,soon"})
    EXPECT_EQ(runCli({"status-items", "archive", out, "--item", bad}).status, 2) << bad;
}

}  // namespace
