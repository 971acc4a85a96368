// Widgets: where they are found, what they are called, and identifiers that survive renaming and
// the identity file.
#include <gatewise/widgets.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include "apps/apps_fixtures.h"
#include "support/log_capture.h"

namespace {

using gw::GWWidget;

class WidgetsTest : public ::testing::Test {
 protected:
  std::string makeWidget(const std::string& path, const std::string& identifier,
                         const std::string& name) {
    std::vector<std::pair<std::string, std::string>> keys = {{"CFBundleIdentifier", identifier}};
    if (!name.empty()) keys.push_back({"CFBundleName", name});
    root_.writeFile(path + "/Info.plist", appstest::infoPlist(keys));
    root_.writeFile(path + "/main.html", "<html>" + name + "</html>");
    return root_.at(path);
  }

  gwtest::TempRoot root_;
  appstest::ScopedEnv dataHome_{"XDG_DATA_HOME", root_.at("/home/mia/.local/share")};
  appstest::ScopedEnv language_{"LANGUAGE", "de"};
};

TEST_F(WidgetsTest, LocalWidgetsThenTheUsersNestedOnesNot) {
  std::string clock = makeWidget("/Library/Widgets/Clock.wdgt", "org.example.clock", "Clock");
  std::string sub = makeWidget("/Library/Widgets/Games/Dice.wdgt", "org.example.dice", "Dice");
  makeWidget("/Library/Widgets/Games/Dice.wdgt/Extra.wdgt", "org.example.extra", "Extra");
  std::string mine = makeWidget("/home/mia/.local/share/gatewise/Widgets/Apple.wdgt",
                                "org.example.apple", "Apple");
  EXPECT_EQ(GWGetAllWidgetPaths(), (std::vector<std::string>{clock, sub, mine}));

  makeWidget("/Library/Widgets/NoID.wdgt", "", "");
  root_.writeFile("/Library/Widgets/NoID.wdgt/Info.plist", appstest::infoPlist({}));
  root_.writeFile("/Library/Widgets/Flat.wdgt", "not a bundle");
  gwtest::LogCapture log;
  std::vector<gw::GWWidgetRef> widgets = GWWidget::installedWidgets();
  std::vector<std::string> names;
  for (const auto& widget : widgets) names.push_back(*widget->displayName());
  EXPECT_EQ(names, (std::vector<std::string>{"Apple", "Clock", "Dice"}));
  EXPECT_TRUE(log.contains("*** Couldn't get bundle ID of widget at " +
                           root_.at("/Library/Widgets/NoID.wdgt")));
  EXPECT_TRUE(log.contains("*** Couldn't get bundle of widget at " +
                           root_.at("/Library/Widgets/Flat.wdgt")));
  EXPECT_EQ(widgets[1]->bundleID(), "org.example.clock");
  EXPECT_EQ(widgets[1]->widgetID()->size(), 20u);
  EXPECT_EQ(widgets[1]->plistRepresentation()->size(), 4u);
}

TEST_F(WidgetsTest, OneLetterLocalizedNamesFallBackToTheInformationDictionary) {
  std::string path = makeWidget("/Library/Widgets/X.wdgt", "org.example.x", "Ex");
  root_.writeFile("/Library/Widgets/X.wdgt/de.lproj/InfoPlist.strings",
                  "\"CFBundleDisplayName\" = \"X\";");
  EXPECT_EQ(GWWidget::widgetWithPath(path)->displayName(), "Ex");
  root_.writeFile("/Library/Widgets/X.wdgt/de.lproj/InfoPlist.strings",
                  "\"CFBundleDisplayName\" = \"Xy\";");
  EXPECT_EQ(GWWidget::widgetWithPath(path)->displayName(), "Xy");

  std::string nameless = makeWidget("/Library/Widgets/N.wdgt", "org.example.n", "");
  gwtest::LogCapture log;
  EXPECT_FALSE(GWWidget::widgetWithPath(nameless));
  EXPECT_TRUE(log.contains("*** Couldn't get display name of widget at " + nameless));
  EXPECT_FALSE(GWWidget::widgetWithPath(std::nullopt));
}

TEST_F(WidgetsTest, IdentifierSurvivesRenamingAndTheIdentityFileNothingElse) {
  std::string path = makeWidget("/Library/Widgets/W.wdgt", "org.example.w", "W");
  std::optional<gw::plist::Data> id = GWGetWidgetIDForPath(path);
  ASSERT_TRUE(id);
  ASSERT_EQ(id->size(), 20u);

  std::string renamed = root_.at("/Library/Widgets/Renamed.wdgt");
  ASSERT_EQ(::rename(path.c_str(), renamed.c_str()), 0);
  EXPECT_EQ(GWGetWidgetIDForPath(renamed), id);
  root_.writeFile("/Library/Widgets/Renamed.wdgt/identity", "first");
  EXPECT_EQ(GWGetWidgetIDForPath(renamed), id);
  root_.writeFile("/Library/Widgets/Renamed.wdgt/identity", "second, longer");
  EXPECT_EQ(GWGetWidgetIDForPath(renamed), id);
  root_.writeFile("/Library/Widgets/Renamed.wdgt/sub/identity", "not at the top");
  EXPECT_NE(GWGetWidgetIDForPath(renamed), id);

  EXPECT_FALSE(GWGetWidgetIDForPath(std::nullopt));
}

TEST_F(WidgetsTest, CopiesAndDictionaryForm) {
  std::string path = makeWidget("/Library/Widgets/C.wdgt", "org.example.c", "Cee");
  auto widget = GWWidget::widgetWithPath(path);
  ASSERT_TRUE(widget);
  EXPECT_EQ(widget->description(), path);
  auto again = GWWidget::widgetWithDictionary(widget->plistRepresentation());
  EXPECT_EQ(again->widgetID(), widget->widgetID());
  EXPECT_NE(again->plistRepresentation(), widget->plistRepresentation());
  auto frozen = widget->copy();
  {
    gwtest::LogCapture log;
    frozen->setDisplayName("Other");
    EXPECT_TRUE(log.contains("*** Caught exception"));
  }
  EXPECT_EQ(frozen->displayName(), "Cee");
  auto thawed = widget->mutableCopy();
  thawed->setWidgetID(std::nullopt);
  EXPECT_FALSE(thawed->widgetID());
  EXPECT_TRUE(widget->widgetID());
  EXPECT_FALSE(GWWidget::widgetWithDictionary(gw::plist::Value("x")));
}

}  // namespace
