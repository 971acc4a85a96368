// The apps, bundle-info and widgets commands: output formats, order, and one-line refusals.
#include <gtest/gtest.h>

#include "apps/apps_fixtures.h"
#include "support/process.h"

namespace {

class AppsCliTest : public ::testing::Test {
 protected:
  gwtest::RunResult run(const std::vector<std::string>& args) {
    return gwtest::runCli(args, {.environment = {{"GATEWISE_ROOT", root_.path()},
                                                 {"XDG_DATA_HOME", root_.at("/home/data")},
                                                 {"XDG_DATA_DIRS", "/usr/share"},
                                                 {"PATH", "/usr/bin:/bin"},
                                                 {"LANGUAGE", "fr"}}});
  }
  gwtest::TempRoot root_;
};

TEST_F(AppsCliTest, ListRecordNestedAndBundleInfo) {
  appstest::writeProgram(root_, "/usr/bin/zed", appstest::elfImage(2));
  root_.writeFile("/usr/share/applications/org.example.Zed.desktop",
                  "[Desktop Entry]\nType=Application\nName=Zed\nName[fr]=Aardvark\nExec=zed\n");
  root_.writeFile("/Applications/Mail.app/Contents/Info.plist",
                  appstest::infoPlist({{"CFBundleIdentifier", "org.example.mail"},
                                       {"CFBundleName", "Mail"},
                                       {"CFBundleExecutable", "Mail"}}));
  appstest::writeProgram(root_, "/Applications/Mail.app/Contents/MacOS/Mail",
                         appstest::machHeader(2));
  std::string helper = appstest::writeProgram(
      root_, "/Applications/Mail.app/Contents/Helpers/fetch", appstest::elfImage(2));

  gwtest::RunResult list = run({"apps", "list"});
  EXPECT_EQ(list.status, 0) << list.err;
  EXPECT_EQ(list.out, "org.example.Zed\tAardvark\t" + root_.at("/usr/bin/zed") + "\n" +
                          "org.example.mail\tMail\t" + root_.at("/Applications/Mail.app") + "\n");

  std::string mail = root_.at("/Applications/Mail.app");
  gwtest::RunResult nested = run({"apps", "nested", mail});
  EXPECT_EQ(nested.out, helper + "\n");

  gwtest::RunResult record = run({"apps", "record", mail, "--sub-apps"});
  EXPECT_EQ(record.status, 0) << record.err;
  EXPECT_NE(record.out.find("<key>bundleID</key>\n\t<string>org.example.mail</string>"),
            std::string::npos)
      << record.out;
  EXPECT_NE(record.out.find("<string>com.unknown.fetch</string>"), std::string::npos);
  EXPECT_EQ(run({"apps", "record", mail}).out.find("subApps"), std::string::npos);

  gwtest::RunResult info = run({"bundle-info", root_.at("/usr/bin/zed")});
  EXPECT_EQ(info.out, "name: zed\nid: com.unknown.zed\ninfo-id: com.morvane.unknown.zed\n");
  EXPECT_EQ(run({"bundle-info", mail}).out,
            "name: Mail\nid: org.example.mail\ninfo-id: org.example.mail\n");
}

TEST_F(AppsCliTest, WidgetsInHex) {
  root_.writeFile(
      "/Library/Widgets/W.wdgt/Info.plist",
      appstest::infoPlist({{"CFBundleIdentifier", "org.example.w"}, {"CFBundleName", "Weather"}}));
  std::string path = root_.at("/Library/Widgets/W.wdgt");
  gwtest::RunResult id = run({"widgets", "id", path});
  ASSERT_EQ(id.status, 0) << id.err;
  ASSERT_EQ(id.out.size(), 41u);
  EXPECT_EQ(id.out.find_first_not_of("0123456789abcdef"), 40u);
  EXPECT_EQ(run({"widgets", "list"}).out, id.out.substr(0, 40) + "\tWeather\t" + path + "\n");
}

TEST_F(AppsCliTest, BadInputExitsTwoWithOneLine) {
  std::string missing = root_.at("/nothing");
  std::string plain = root_.writeFile("/plain", "x");
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"apps", "record", missing},
        std::vector<std::string>{"apps", "nested", missing},
        std::vector<std::string>{"apps", "nested", plain},
        std::vector<std::string>{"bundle-info", missing},
        std::vector<std::string>{"widgets", "id", missing}, std::vector<std::string>{"apps"}}) {
    gwtest::RunResult result = run(args);
    EXPECT_EQ(result.status, 2) << args[1];
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_TRUE(result.out.empty());
  }
}

}  // namespace
