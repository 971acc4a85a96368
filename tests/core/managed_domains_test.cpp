#include <gatewise/core.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "support/temp_root.h"

namespace {

constexpr const char* kFolder = "/Library/Managed Preferences/bob/";

std::string plistWith(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body +
         "</plist>\n";
}

std::vector<std::string> domainsOf(const std::string& user) {
  std::vector<std::string> names;
  gw::plist::ArrayRef domains = GWManagedDomainsForUser(user);
  if (!domains) return {"<nil>"};
  for (const auto& d : *domains) names.push_back(d.string());
  return names;
}

// Each switchable file: on, off, key missing, and unreadable as a dictionary.
TEST(ManagedDomainsTest, SwitchableFilesCountOnlyWhenTheirKeyIsMissingOrTrue) {
  struct Switchable {
    const char* domain;
    const char* key;
  } switchables[] = {{"com.morvane.applicationaccess.new", "gatewiseEnabled"},
                     {"com.morvane.vistrel", "whiteListEnabled"},
                     {"com.morvane.gatewise.contentfilter", "restrictWeb"}};
  struct State {
    const char* name;
    std::string contents;
    bool inForce;
  };
  for (const Switchable& s : switchables) {
    std::string key = std::string("<key>") + s.key + "</key>";
    State states[] = {
        {"on", plistWith("<dict>" + key + "<true/></dict>"), true},
        {"off", plistWith("<dict>" + key + "<false/></dict>"), false},
        {"missing key", plistWith("<dict><key>other</key><false/></dict>"), true},
        {"not a dictionary", plistWith("<array/>"), false},
        {"garbage", "not a property list", false},
    };
    for (const State& state : states) {
      gwtest::TempRoot root;
      root.writeFile(std::string(kFolder) + s.domain + ".plist", state.contents);
      std::vector<std::string> expected;
      if (state.inForce) expected.push_back(s.domain);
      EXPECT_EQ(domainsOf("bob"), expected) << s.domain << " " << state.name;
    }
  }
}

TEST(ManagedDomainsTest, CompleteIsSkippedAndSubFoldersReportRelativePaths) {
  gwtest::TempRoot root;
  root.writeFile(std::string(kFolder) + "com.morvane.vistrel.plist",
                 plistWith("<dict><key>whiteListEnabled</key><false/></dict>"));
  root.writeFile(std::string(kFolder) + "complete.plist", plistWith("<dict/>"));
  root.writeFile(std::string(kFolder) + "com.morvane.gatewise.timelimits.plist", "anything");
  EXPECT_EQ(domainsOf("bob"), std::vector<std::string>{"com.morvane.gatewise.timelimits"});

  // Below a sub-folder the names never match the switchable kinds: reported as they are.
  root.writeFile(std::string(kFolder) + "sub/com.morvane.vistrel.plist",
                 plistWith("<dict><key>whiteListEnabled</key><false/></dict>"));
  root.writeFile(std::string(kFolder) + "sub/complete.plist", "");
  root.writeFile(std::string(kFolder) + "odd.plist.plist", "");
  EXPECT_EQ(domainsOf("bob"),
            (std::vector<std::string>{"com.morvane.gatewise.timelimits", "odd",
                                      "sub/com.morvane.vistrel", "sub/complete"}));
}

TEST(ManagedDomainsTest, UnreadableSwitchableFilesAreLeftOut) {
  gwtest::TempRoot root;
  std::string folder = root.makeFolder(kFolder);
  root.writeFile(std::string(kFolder) + "com.morvane.Lumeway.plist", "");
  // A link to nothing and a link to a folder: present by name, unreadable as a file.
  ASSERT_EQ(::symlink("/nonexistent", (folder + "com.morvane.vistrel.plist").c_str()), 0);
  ASSERT_EQ(::symlink("/", (folder + "com.morvane.gatewise.contentfilter.plist").c_str()), 0);
  EXPECT_EQ(domainsOf("bob"), std::vector<std::string>{"com.morvane.Lumeway"});
}

TEST(ManagedDomainsTest, RefusedAndMissingUsers) {
  gwtest::TempRoot root;
  root.writeFile("/Library/Managed Preferences/x.plist", "");
  root.writeFile("/Library/other.plist", "");
  EXPECT_EQ(domainsOf(""), std::vector<std::string>{"<nil>"});
  for (const char* refused : {"..", ".", "../Managed Preferences", "a/b"}) {
    EXPECT_EQ(domainsOf(refused), std::vector<std::string>{"<nil>"}) << refused;
  }
  EXPECT_TRUE(domainsOf("nobody").empty());
}

TEST(ManagedDomainsTest, DaemonDomainsAreRecognisedByEquality) {
  auto array = [](std::initializer_list<gw::plist::Value> items) {
    return gw::plist::Value::newArray(items).array();
  };
  EXPECT_TRUE(GWPrefDomainsRequireDaemon(array({"com.morvane.Lumeway"})));
  EXPECT_TRUE(GWPrefDomainsRequireDaemon(array({1, "x", "com.morvane.gatewise.logging"})));
  EXPECT_FALSE(GWPrefDomainsRequireDaemon(array({"com.morvane.lumeway"})));
  EXPECT_FALSE(GWPrefDomainsRequireDaemon(array({"com.morvane.gatewise"})));
  EXPECT_FALSE(GWPrefDomainsRequireDaemon(array({})));
  EXPECT_FALSE(GWPrefDomainsRequireDaemon(nullptr));
}

TEST(PathsTest, FixedLocationsLieBelowTheRootAndRefuseUnsafeNames) {
  gwtest::TempRoot root;
  EXPECT_EQ(GWFolderForUserName("bob"),
            root.at("/Library/Application Support/Morvane/Tutela/Users/bob"));
  EXPECT_FALSE(GWFolderForUserName(std::nullopt));
  EXPECT_FALSE(GWFolderForUserName(".."));
  EXPECT_FALSE(GWFolderForUserName("a/../../etc"));
  EXPECT_FALSE(GWFolderForUserName(""));
  EXPECT_EQ(GWManagedPreferencesFileForUser("bob", "com.morvane.Lumeway"),
            root.at("/Library/Managed Preferences/bob/com.morvane.Lumeway.plist"));
  EXPECT_FALSE(GWManagedPreferencesFileForUser("bob", "../x"));
  EXPECT_EQ(GWRootedPath(kGWListeningFilePath),
            root.at("/Library/Application Support/Morvane/Tutela/.listening"));
}

}  // namespace
