#include <gatewise/archive.h>
#include <gatewise/schedule/text.h>
#include <gatewise/status.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "support/log_capture.h"
#include "support/plistlib.h"
#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gw::GWStatusItem;
using gw::GWStatusItemRef;
using gw::plist::Date;
using gw::plist::Value;

constexpr double kNineFiftyFive = 812345700;  // any moment will do; minutes are what matter

GWStatusItemRef itemCreated(double secondsBeforeExpiry, std::string kind = "") {
  auto item =
      GWStatusItem::initWithName("Chess", kind.empty() ? std::string(gw::kGWItemKindProgram) : kind,
                                 Date{kNineFiftyFive + secondsBeforeExpiry});
  item->setItemCreationDate(Date{kNineFiftyFive});
  return item;
}

TEST(StatusItemTest, InitWithNameLeavesEveryOtherFieldEmpty) {
  auto item = GWStatusItem::initWithName("Mail", std::string(gw::kGWItemKindGroup), Date{5});
  EXPECT_FALSE(item->itemID());
  EXPECT_FALSE(item->statusKind());
  EXPECT_FALSE(item->itemCreationDate());
  EXPECT_FALSE(item->limit());
  EXPECT_FALSE(item->timer());
  EXPECT_EQ(item->pid(), 0);
  EXPECT_EQ(item->timeFromCreation(), 0);
  EXPECT_TRUE(item->description().ends_with(" - Mail - "));
  item->setItemID("id-1");
  EXPECT_TRUE(item->description().starts_with("<GWStatusItem: 0x"));
  EXPECT_TRUE(item->description().ends_with(" - Mail - id-1"));
}

TEST(StatusItemTest, TitleMessageAndSpokenTextFollowTheStatusKind) {
  struct Case {
    std::optional<std::string> statusKind;
    std::string itemKind;
    std::string title;
    std::optional<std::string> message;
    bool warning, termination, couldNotQuit;
  };
  const std::string program(gw::kGWItemKindProgram), group(gw::kGWItemKindGroup),
      computer(gw::kGWItemKindComputer);
  const std::vector<Case> cases = {
      {std::nullopt, computer, "Warning", "Only 5 minutes remains for the computer \"Chess\".",
       true, false, false},
      {std::string(gw::kGWStatusKindTerminationWarning), program, "Warning",
       "Only 5 minutes remains for the application \"Chess\".", true, false, false},
      {std::string(gw::kGWStatusKindAllowanceExceeded), program, "Application Allowance Expired",
       "Your time with the application \"Chess\" has expired. \"Chess\" will now quit.", false,
       true, false},
      {std::string(gw::kGWStatusKindCurfewUnallowed), group, "Application Curfew Encountered",
       "The group \"Chess\" is not allowed at this time. \"Chess\" will now quit.", false, true,
       false},
      {std::string(gw::kGWStatusKindBlacklisted), "com.example.other", "Application Not Allowed",
       "The unknown \"Chess\" is not allowed. \"Chess\" will now quit.", false, true, false},
      {std::string(gw::kGWStatusKindCouldNotQuit), program, "Application Did Not Quit",
       "The application Chess did not quit. You have 60 seconds to save your work before the "
       "application will be forced to quit.",
       false, false, true},
      {std::string("SomethingElse"), program, "Unknown", std::nullopt, false, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.title);
    auto item = itemCreated(298, c.itemKind);
    item->setStatusKind(c.statusKind);
    EXPECT_EQ(item->title(), c.title);
    EXPECT_EQ(item->message(), c.message);
    EXPECT_EQ(item->isWarning(), c.warning);
    EXPECT_EQ(item->isTerminationAlert(), c.termination);
    EXPECT_EQ(item->isCouldNotQuitAlert(), c.couldNotQuit);
    std::string spoken =
        c.couldNotQuit ? *c.message : c.title + ", " + c.message.value_or("(null)");
    EXPECT_EQ(item->messageForTTS(), spoken);
  }
}

TEST(StatusItemTest, TimeFromCreationSnapsOnlyStrictlyInsideThreeSecondsOfAWholeMinute) {
  const std::vector<std::pair<double, double>> cases = {
      {57, 57},   {57.01, 60}, {60, 60},   {62.99, 60}, {63, 63},   {117, 117}, {118, 120},
      {122, 120}, {123, 123},  {177, 177}, {178, 180},  {182, 180}, {183, 183}, {237, 237},
      {238, 240}, {242, 240},  {243, 243}, {296, 296},  {297, 297}, {298, 300}, {302.5, 300},
      {303, 303}, {360, 360},  {0, 0},     {-2, -2},    {1.5, 1.5}};
  for (auto [seconds, expected] : cases) {
    EXPECT_EQ(itemCreated(seconds)->timeFromCreation(), expected) << seconds;
  }
  // Warnings speak of the snapped, then truncated, duration.
  EXPECT_EQ(itemCreated(298)->message(), "Only 5 minutes remains for the application \"Chess\".");
  EXPECT_EQ(itemCreated(296.9)->message(), "Only " +
                                               gw::GWUtilities::timeDurationStringForSeconds(296) +
                                               " remains for the application \"Chess\".");
  EXPECT_EQ(gw::GWUtilities::timeDurationStringForSeconds(296), "4 minutes and 56 seconds");
}

TEST(StatusItemTest, TimeRemainingCountsFromNowAndGoesNegative) {
  double before = Date::now().secondsSinceReferenceDate;
  auto item = GWStatusItem::initWithName("x", "k", Date{before + 100});
  double remaining = item->timeRemaining();
  double after = Date::now().secondsSinceReferenceDate;
  EXPECT_LE(remaining, 100);
  EXPECT_GE(remaining, 100 - (after - before) - 0.001);
  item->setExpirationDate(Date{before - 30});
  EXPECT_LT(item->timeRemaining(), -29.9);
}

GWStatusItemRef fullItem() {
  auto item = itemCreated(118, std::string(gw::kGWItemKindGroup));
  item->setItemID("5F1A");
  item->setStatusKind(std::string(gw::kGWStatusKindCurfewUnallowed));
  item->setPid(-123456);
  item->setLimit(gw::GWLimitItem::limitItemWithDictionary(Value::newDictionary(
      {{"name", "Games"},
       {"enabled", true},
       {"allowances", Value::newArray({Value::newDictionary({{"timeLimitSeconds", 3600}})})}})));
  return item;
}

void expectSameFields(const GWStatusItem& a, const GWStatusItem& b) {
  EXPECT_EQ(a.itemID(), b.itemID());
  EXPECT_EQ(a.itemKind(), b.itemKind());
  EXPECT_EQ(a.statusKind(), b.statusKind());
  EXPECT_EQ(a.itemCreationDate(), b.itemCreationDate());
  EXPECT_EQ(a.expirationDate(), b.expirationDate());
  EXPECT_EQ(a.itemName(), b.itemName());
  EXPECT_EQ(a.pid(), b.pid());
  ASSERT_EQ(bool(a.limit()), bool(b.limit()));
  if (a.limit()) {
    EXPECT_EQ(Value(a.limit()->plistRepresentation()), Value(b.limit()->plistRepresentation()));
  }
}

TEST(StatusItemTest, EveryFieldRoundTripsThroughAnArchiveInTheCodingOrder) {
  auto full = fullItem();
  auto bare = GWStatusItem::initWithName("Bare", "", Date{-1.5});
  for (auto format : {gw::plist::Format::Binary, gw::plist::Format::XML}) {
    auto bytes = gw::archive::archivedDataWithRootObject(Value::newArray({full, bare}), format);
    ASSERT_FALSE(bytes.empty());
    Value back = gw::archive::unarchiveObjectWithData(bytes);
    ASSERT_TRUE(back.isArray());
    ASSERT_EQ(back.array()->size(), 2u);
    auto fullBack = back.array()->at(0).ifObject<GWStatusItem>();
    auto bareBack = back.array()->at(1).ifObject<GWStatusItem>();
    ASSERT_TRUE(fullBack && bareBack);
    expectSameFields(*full, *fullBack);
    expectSameFields(*bare, *bareBack);
    EXPECT_EQ(fullBack->title(), "Application Curfew Encountered");
  }

  // Fields are written in the order itemKind, statusKind, itemCreationDate, expirationDate,
  // itemName, pid, itemID, limit: their table entries follow that order; the class is
  // "GWStatusItem" below "NSObject".
  auto bytes = gw::archive::archivedDataWithRootObject(Value(full));
  auto top = gw::plist::readPropertyList(std::span<const std::uint8_t>(bytes));
  ASSERT_TRUE(top);
  const auto& objects = *top.value->dictionary()->get("$objects").array();
  const auto& fields =
      *objects[top.value->dictionary()->get("$top").dictionary()->get("root").uid().value]
           .dictionary();
  std::uint64_t previous = 0;
  for (const char* key : {"itemKind", "statusKind", "itemCreationDate", "expirationDate",
                          "itemName", "pid", "itemID", "limit"}) {
    ASSERT_TRUE(fields.get(key).isUID()) << key;
    EXPECT_GT(fields.get(key).uid().value, previous) << key;
    previous = fields.get(key).uid().value;
  }
  EXPECT_EQ(objects[fields.get("pid").uid().value], Value(-123456));
  const auto& info = *objects[fields.get("$class").uid().value].dictionary();
  EXPECT_EQ(info.get("$classname"), Value("GWStatusItem"));
  EXPECT_EQ(info.get("$classes"), Value::newArray({"GWStatusItem", "NSObject"}));
}

std::string archiveTool() {
  return std::string(GATEWISE_TEST_SOURCE_DIR) + "/platform/archive/keyed_archive_tool.py";
}

TEST(StatusItemTest, ItemsArchivedByAnotherWriterDecodeAndOursReadElsewhere) {
  gwtest::TempRoot root;
  // Another writer's form: pid inline, the limit a dictionary of its own, no creation date.
  Value plain = Value::newArray(
      {Value::newDictionary({{"$class", "GWStatusItem"},
                             {"itemKind", std::string(gw::kGWItemKindComputer)},
                             {"expirationDate", Date{812345678}},
                             {"itemName", "Computer"},
                             {"pid", 77},
                             {"limit", Value::newDictionary({{"name", "Computer"}})}}),
       Value::newDictionary({{"$class", "GWStatusItem"},
                             {"itemKind", std::string(gw::kGWItemKindProgram)},
                             {"statusKind", std::string(gw::kGWStatusKindCouldNotQuit)},
                             {"itemCreationDate", Date{812345000}},
                             {"expirationDate", Date{812345060}},
                             {"itemName", "Paint"},
                             {"itemID", "p-1"}})});
  std::string plainPath = root.at("/plain.plist");
  ASSERT_TRUE(gw::plist::writePropertyListFile(plainPath, plain, gw::plist::Format::Binary));
  std::string theirs = root.at("/theirs.archive");
  auto made = gwtest::runProgram(
      {GATEWISE_TEST_PYTHON3, archiveTool(), "archive", plainPath, theirs, "xml"});
  ASSERT_EQ(made.status, 0) << made.err;
  std::ifstream in(theirs, std::ios::binary);
  std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(in), {});
  Value decoded = gw::archive::unarchiveObjectWithData(bytes);
  ASSERT_TRUE(decoded.isArray());
  ASSERT_EQ(decoded.array()->size(), 2u);
  auto computer = decoded.array()->at(0).ifObject<GWStatusItem>();
  auto paint = decoded.array()->at(1).ifObject<GWStatusItem>();
  ASSERT_TRUE(computer && paint);
  EXPECT_EQ(computer->pid(), 77);
  EXPECT_EQ(computer->itemName(), "Computer");
  EXPECT_EQ(computer->expirationDate(), Date{812345678});
  EXPECT_FALSE(computer->statusKind());
  ASSERT_TRUE(computer->limit());
  EXPECT_EQ(Value(computer->limit()->plistRepresentation()),
            Value::newDictionary({{"name", "Computer"}}));
  EXPECT_EQ(paint->itemID(), "p-1");
  EXPECT_EQ(paint->itemCreationDate(), Date{812345000});
  EXPECT_TRUE(paint->isCouldNotQuitAlert());
  EXPECT_EQ(paint->timeFromCreation(), 60);

  // Ours, read back by that writer's reader, gives the same fields (pid as a number object).
  auto full = fullItem();
  auto ours = gw::archive::archivedDataWithRootObject(Value(full));
  std::string oursPath = root.writeFile("/ours.archive", std::string(ours.begin(), ours.end()));
  auto read = gwtest::runProgram({GATEWISE_TEST_PYTHON3, archiveTool(), "unarchive", oursPath});
  ASSERT_EQ(read.status, 0) << read.err;
  Value expected = Value::newDictionary({{"$class", "GWStatusItem"},
                                         {"itemKind", full->itemKind()},
                                         {"statusKind", *full->statusKind()},
                                         {"itemCreationDate", *full->itemCreationDate()},
                                         {"expirationDate", full->expirationDate()},
                                         {"itemName", full->itemName()},
                                         {"pid", full->pid()},
                                         {"itemID", *full->itemID()},
                                         {"limit", Value(full->limit()->plistRepresentation())}});
  EXPECT_EQ(read.out, gwtest::canonicalText(expected) + "\n");
}

TEST(StatusItemTest, FieldsOfTheWrongTypeFailTheArchive) {
  gwtest::LogCapture log(0);
  auto good = gw::archive::archivedDataWithRootObject(Value(fullItem()));
  for (auto [key, value] :
       std::vector<std::pair<std::string, Value>>{{"itemName", Value(5)},
                                                  {"itemKind", Value(gw::plist::Data{1})},
                                                  {"expirationDate", Value("tomorrow")},
                                                  {"itemCreationDate", Value(1.5)},
                                                  {"statusKind", Value(true)},
                                                  {"itemID", Value(7)},
                                                  {"pid", Value("12")},
                                                  {"limit", Value("Games")}}) {
    SCOPED_TRACE(key);
    log.clear();
    // The item's archive with one field pointing at a value of another type.
    gw::plist::ReadOptions options;
    options.mutability = gw::plist::Mutability::MutableContainers;
    auto top = gw::plist::readPropertyList(std::span<const std::uint8_t>(good), options);
    ASSERT_TRUE(top);
    auto& objects = *top.value->dictionary()->get("$objects").array();
    auto& fields =
        *objects[top.value->dictionary()->get("$top").dictionary()->get("root").uid().value]
             .dictionary();
    objects.append(value);
    fields.set(key, gw::plist::UID{objects.size() - 1});
    auto bytes = gw::plist::writePropertyList(*top.value, gw::plist::Format::Binary);
    ASSERT_TRUE(bytes);
    std::vector<std::uint8_t> tampered(bytes->begin(), bytes->end());
    EXPECT_TRUE(gw::archive::unarchiveObjectWithData(tampered).isNull());
    EXPECT_TRUE(log.contains("*** GWStatusItem:"));
    EXPECT_TRUE(log.contains("*** Not a keyed archive"));
  }
  // The untouched archive decodes: the failures above come from the one field.
  EXPECT_TRUE(gw::archive::unarchiveObjectWithData(good).ifObject<GWStatusItem>());
}

}  // namespace
