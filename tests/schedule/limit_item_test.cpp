#include <gatewise/apps.h>
#include <gatewise/exception.h>
#include <gatewise/schedule/calendar.h>
#include <gatewise/schedule/limit_item.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_root.h"

namespace gw {
namespace {

using plist::Value;

Value curfewsWithEvening() {
  return Value::newDictionary(
      {{"monday",
        Value::newArray({Value::newDictionary({{"start", "21:00:00"}, {"end", "23:59:59"}})})}});
}

Value storedProgram(const char* bundleID, const char* name) {
  return Value::newDictionary({{"itemType", std::string(kGWLimitTypeProgram)},
                               {"bundleID", bundleID},
                               {"name", name},
                               {"enabled", true}});
}

Value storedGroup() {
  return Value::newDictionary(
      {{"itemType", std::string(kGWLimitTypeGroup)},
       {"groupID", "G-1"},
       {"name", "Homework"},
       {"enabled", true},
       {"allowancesActive", true},
       {"timeLastUpdated", 17},
       {"appList", Value::newArray({Value::newDictionary(
                       {{"path", "/Applications/Pad.app"},
                        {"bundleID", "org.example.pad"},
                        {"appID", plist::Data{0xFA, 0xDE, 0x0C, 0x00}},
                        {"subApps", Value::newArray({Value::newDictionary(
                                        {{"path", "/Applications/Pad.app/Helper"}})})}})})},
       {"siteList", Value::newArray({"a.example", "b.example"})},
       {"widgetList", Value::newArray({Value::newDictionary({{"id", "w"}})})},
       {"curfews", curfewsWithEvening()},
       {"allowances",
        Value::newArray({Value::newDictionary(
            {{"timeLimitSeconds", 3600}, {"fromDay", 0}, {"toDay", 4}, {"span", 0}})})},
       {"extra", "kept"}});
}

void writeLimits(const gwtest::TempRoot& root, const char* user, const Value& list) {
  std::string xml = *plist::writePropertyList(
      Value::newDictionary({{std::string(kGWLimitsListKey), list}}), plist::Format::XML);
  root.writeFile(std::string("/Library/Managed Preferences/") + user +
                     "/com.morvane.gatewise.timelimits.plist",
                 xml);
}

TEST(LimitItemTest, StoredFormComesBackAfterReadingItIntoObjects) {
  GWLimitItemRef group = GWLimitItem::limitItemWithDictionary(storedGroup());
  ASSERT_TRUE(group);
  ASSERT_TRUE(group->curfews());
  EXPECT_TRUE(group->curfews()->hasCurfews());
  ASSERT_TRUE(group->appList());
  auto app = (*group->appList())[0].ifObject<GWApp>();
  ASSERT_TRUE(app);
  EXPECT_EQ(app->bundleID(), "org.example.pad");
  ASSERT_TRUE(app->subApps());
  EXPECT_TRUE((*app->subApps())[0].ifObject<GWApp>());
  ASSERT_TRUE(group->allowances());
  EXPECT_TRUE((*group->allowances())[0].ifObject<GWAllowance>());
  EXPECT_EQ(group->timeLastUpdated(), 17);
  EXPECT_EQ(group->uniqueID(), "G-1");

  plist::DictionaryRef stored = group->plistRepresentation();
  EXPECT_TRUE(plist::isValidPropertyList(stored, plist::Format::XML));
  Value expected = storedGroup();
  EXPECT_EQ(Value(stored), expected) << plist::description(stored);

  // The live item does not change when its stored form is made.
  EXPECT_TRUE((*group->appList())[0].ifObject<GWApp>());
}

TEST(LimitItemTest, CopyOfALiveItemSharesCurfewsAndDropsAppsAndAllowances) {
  GWLimitItemRef source = GWLimitItem::limitItemWithDictionary(storedGroup());
  GWLimitItemRef copy = GWLimitItem::limitItemWithLimitItem(source);
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->name(), "Homework");
  EXPECT_EQ(copy->itemType(), kGWLimitTypeGroup);
  EXPECT_EQ(copy->curfews(), source->curfews());
  ASSERT_TRUE(copy->appList());
  EXPECT_TRUE(copy->appList()->empty());
  ASSERT_TRUE(copy->allowances());
  EXPECT_TRUE(copy->allowances()->empty());
  EXPECT_EQ(copy->siteList()->size(), 2u);
  EXPECT_EQ(source->appList()->size(), 1u);

  // The way to a full copy goes through the stored form.
  GWLimitItemRef full = GWLimitItem::limitItemWithDictionary(source->plistRepresentation());
  EXPECT_EQ(full->appList()->size(), 1u);
  EXPECT_NE(full->curfews(), source->curfews());
}

TEST(LimitItemTest, MalformedEntriesRaiseAndNonPropertyListsAreSkipped) {
  Value badApp = storedGroup();
  badApp.dictionary()->set("appList", Value::newArray({"not a record"}));
  try {
    GWLimitItem::initWithDictionary(badApp);
    FAIL() << "an app entry that is no record must raise";
  } catch (const GWException& e) {
    EXPECT_EQ(e.name(), "GWLimitItem");
    EXPECT_EQ(e.reason(),
              "-[GWLimitItem initWithDictionary:] -- Couldn't upgrade an app from property list.");
  }
  Value badAllowance = storedGroup();
  badAllowance.dictionary()->set("allowances", Value::newArray({42}));
  try {
    GWLimitItem::initWithDictionary(badAllowance);
    FAIL() << "an allowance entry that is no record must raise";
  } catch (const GWException& e) {
    EXPECT_EQ(e.reason(),
              "-[GWLimitItem initWithDictionary:] -- Couldn't upgrade an allowance from property "
              "list.");
  }

  // A value that cannot be written raises on the way out.
  GWLimitItemRef item = GWLimitItem::computerLimit();
  item->dictionary()->set("odd", Value(GWLimitItem::init()));
  EXPECT_THROW(item->plistRepresentation(), GWException);

  EXPECT_FALSE(GWLimitItem::initWithDictionary(Value("string")));
  EXPECT_FALSE(GWLimitItem::initWithDictionary(Value()));
}

TEST(LimitItemTest, CurfewsThatCannotBeReadAreReplacedByEmptyOnes) {
  gwtest::LogCapture log(0);
  Value stored = storedProgram("org.example.x", "X");
  stored.dictionary()->set("curfews", Value::newArray({"monday"}));
  GWLimitItemRef item = GWLimitItem::initWithDictionary(stored);
  ASSERT_TRUE(item);
  ASSERT_TRUE(item->curfews());
  EXPECT_FALSE(item->curfews()->hasCurfews());
  EXPECT_TRUE(log.contains(
      "-[GWLimitItem initWithDictionary:] -- Couldn't upgrade curfews from property list. Using "
      "empty curfews dict."));
}

TEST(LimitItemTest, FactoriesSetTheirKindsAndFixedIdentifiers) {
  GWLimitItemRef computer = GWLimitItem::computerLimit();
  EXPECT_TRUE(computer->isComputer());
  EXPECT_FALSE(computer->enabled());
  EXPECT_TRUE(computer->allowancesActive());
  computer->setGroupID("something else");
  EXPECT_EQ(computer->uniqueID(), "__COMPUTER__");

  GWLimitItemRef games = GWLimitItem::gamesGroup();
  EXPECT_TRUE(games->isGamesGroup());
  EXPECT_EQ(games->uniqueID(), "__GAMES__");

  GWLimitItemRef a = GWLimitItem::groupWithName("A");
  GWLimitItemRef b = GWLimitItem::groupWithName("B");
  EXPECT_TRUE(a->isGroup());
  EXPECT_FALSE(a->isGamesGroup());
  ASSERT_TRUE(a->groupID());
  EXPECT_EQ(a->groupID()->size(), 36u);
  EXPECT_NE(a->groupID(), b->groupID());

  GWLimitItemRef program = GWLimitItem::limitItemWithBundleID("org.example.p");
  EXPECT_TRUE(program->isProgram());
  EXPECT_TRUE(program->enabled());
  EXPECT_EQ(program->uniqueID(), "org.example.p");

  GWLimitItemRef url = GWLimitItem::limitItemWithURL("file:///Applications/Tool%20Box.app");
  EXPECT_EQ(url->path(), "/Applications/Tool Box.app");
  EXPECT_EQ(url->name(), "Tool Box");

  GWLimitItemRef site = GWLimitItem::init();
  site->setItemType(std::string(kGWLimitTypeWebSite));
  EXPECT_TRUE(site->isWebSite());
  EXPECT_EQ(site->uniqueID(), std::nullopt);

  // Setters given nothing remove their keys.
  program->setBundleID(std::nullopt);
  program->setCurfews(nullptr);
  EXPECT_FALSE(program->dictionary()->contains("bundleID"));
  EXPECT_EQ(program->uniqueID(), std::nullopt);
}

TEST(LimitItemTest, ListAndScheduleTexts) {
  GWLimitItemRef group = GWLimitItem::limitItemWithDictionary(storedGroup());
  group->siteList()->append("c.example");
  group->siteList()->removeAt(0);
  EXPECT_EQ(group->listDescription(), "1 application, 2 web sites, 1 Vistrel widget");
  EXPECT_EQ(group->scheduleDescription(), "Allowances and curfews set");
  EXPECT_EQ(group->briefDescription(),
            "1 application, 2 web sites, 1 Vistrel widget\nAllowances and curfews set");

  GWLimitItemRef sitesOnly = GWLimitItem::groupWithName("S");
  sitesOnly->setSiteList(plist::Array::make({"x"}));
  sitesOnly->setWidgetList(plist::Array::make({"w1", "w2"}));
  EXPECT_EQ(sitesOnly->listDescription(), "1 web site, 2 Vistrel widgets");
  EXPECT_EQ(sitesOnly->scheduleDescription(), "No schedule");

  // The computer item with nothing listed: no list text at all, only the schedule.
  setWeekDataLocale("en_US");
  GWLimitItemRef computer = GWLimitItem::computerLimit();
  EXPECT_EQ(computer->listDescription(), "");
  computer->setWeekdayAllowanceSeconds(7200);
  EXPECT_EQ(computer->briefDescription(), "Allowances set");
  computer->removeWeekdayAllowance();

  // Curfews without allowances have no wording: the schedule text is empty, not "No schedule".
  GWCurfewsRef curfews = GWCurfews::curfews();
  curfews->setWeekdayCurfewStarting(GWTime(21, 0, 0), GWTime(7, 0, 0));
  computer->setCurfews(curfews);
  EXPECT_TRUE(computer->hasActiveSchedule());
  EXPECT_EQ(computer->scheduleDescription(), "");
  EXPECT_EQ(GWLimitItem::init()->listDescription(), "No managed items");
  setWeekDataLocale("");

  std::string text = group->description();
  EXPECT_NE(text.find("\n\t\tItem type: com.morvane.gatewise.timelimits.group\n\t\tEnabled: 1\n"
                      "\t\tName: Homework\n\t\tBundle ID: n/a\n\t\tGroup ID: G-1\n\t\tPath: n/a\n"),
            std::string::npos)
      << text;
  std::string program = GWLimitItem::limitItemWithBundleID("p")->description();
  EXPECT_NE(program.find("\t\tBundle ID: p\n\t\tGroup ID: (null)\n"), std::string::npos) << program;
  EXPECT_NE(program.find("Apps: n/a\n"), std::string::npos);
}

TEST(LimitItemTest, PreferenceReadersKeepFileOrderAndLetLaterDuplicatesWin) {
  gwtest::TempRoot root;
  gwtest::LogCapture log(0);
  Value first = storedProgram("org.example.dup", "First");
  Value second = storedProgram("org.example.dup", "Second");
  Value computerA = Value::newDictionary(
      {{"itemType", std::string(kGWLimitTypeComputer)}, {"name", "Old computer"}});
  Value computerB =
      Value::newDictionary({{"itemType", std::string(kGWLimitTypeComputer)}, {"name", "Computer"}});
  Value broken = storedGroup();
  broken.dictionary()->set("appList", Value::newArray({7}));
  writeLimits(root, "kid",
              Value::newArray({computerA, first, "not an item", broken, second, computerB,
                               Value::newDictionary({{"itemType", std::string(kGWLimitTypeGroup)},
                                                     {"groupID", "__GAMES__"}})}));

  std::vector<GWLimitItemRef> items = GWLimitItem::allLimitsForUser("kid");
  ASSERT_EQ(items.size(), 5u);
  EXPECT_EQ(items[0]->name(), "Old computer");
  EXPECT_EQ(items[1]->name(), "First");
  EXPECT_EQ(items[2]->name(), "Second");
  EXPECT_TRUE(
      log.contains("*** Caught exception: -[GWLimitItem initWithDictionary:] -- "
                   "Couldn't upgrade an app from property list."));

  GWLimitItemRef dup = GWLimitItem::limitWithID("org.example.dup", "kid");
  ASSERT_TRUE(dup);
  EXPECT_EQ(dup->name(), "Second");
  EXPECT_EQ(GWLimitItem::computerLimitForUser("kid")->name(), "Computer");
  EXPECT_TRUE(GWLimitItem::gamesGroupLimitForUser("kid"));
  EXPECT_FALSE(GWLimitItem::limitWithID("org.example.none", "kid"));

  // No file, another shape, a link in the file's place, a refused name: no items, no throw.
  EXPECT_TRUE(GWLimitItem::allLimitsForUser("nobody-here").empty());
  EXPECT_FALSE(GWLimitItem::computerLimitForUser("nobody-here"));
  root.writeFile("/Library/Managed Preferences/arr/com.morvane.gatewise.timelimits.plist",
                 *plist::writePropertyList(Value::newArray({storedGroup()}), plist::Format::XML));
  EXPECT_TRUE(GWLimitItem::allLimitsForUser("arr").empty());
  root.makeFolder("/Library/Managed Preferences/linked");
  ASSERT_EQ(::symlink(root.at("/Library/Managed Preferences/kid/"
                              "com.morvane.gatewise.timelimits.plist")
                          .c_str(),
                      root.at("/Library/Managed Preferences/linked/"
                              "com.morvane.gatewise.timelimits.plist")
                          .c_str()),
            0);
  EXPECT_TRUE(GWLimitItem::allLimitsForUser("linked").empty());
  EXPECT_TRUE(GWLimitItem::allLimitsForUser("..").empty());
}

TEST(AppRecordTest, DictionaryFormKeepsTheLiveDictionaryUnlessThereAreSubApps) {
  GWAppRef plain = GWApp::appWithDictionary(Value::newDictionary(
      {{"path", "/Applications/A.app"}, {"displayName", "A"}, {"subApps", Value::newArray()}}));
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->plistRepresentation(), plain->dictionary());
  plain->setAppID(plist::Data{1, 2});
  EXPECT_EQ(plain->appID(), (plist::Data{1, 2}));
  plain->setAppID(std::nullopt);
  EXPECT_FALSE(plain->dictionary()->contains("appID"));

  // Sub-apps that give no record are dropped; none left means no key at all.
  GWAppRef none = GWApp::appWithDictionary(
      Value::newDictionary({{"path", "/p"}, {"subApps", Value::newArray({"x", 3})}}));
  EXPECT_FALSE(none->subApps());
  EXPECT_FALSE(GWApp::appWithDictionary(Value("x")));

  GWAppRef b = GWApp::appWithDictionary(Value::newDictionary({{"displayName", "B"}}));
  EXPECT_LT(plain->compare(*b), 0);
  EXPECT_GT(b->compare(*plain), 0);
  EXPECT_NE(plain->description().find("\tpath: /Applications/A.app\tbundleID: (null)"),
            std::string::npos);
}

}  // namespace
}  // namespace gw
