// Application records made from programs on disk: names, identifiers, signing with its
// exceptions, the requirement, validation errors and copies.
#include <gatewise/apps.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fstream>

#include "apps/apps_fixtures.h"
#include "support/log_capture.h"

namespace {

using gw::GWApp;
using gw::GWAppRef;

class AppRecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.makeFolder("/tmp");
    tool_ = appstest::writeProgram(root_, "/Applications/tool.sh", appstest::machHeader(2));
  }

  // A bundle with an information dictionary and one executable.
  std::string makeBundle(const std::string& name, const std::string& identifier) {
    std::string bundle = "/Applications/" + name + ".app";
    root_.writeFile(bundle + "/Contents/Info.plist",
                    appstest::infoPlist({{"CFBundleIdentifier", identifier},
                                         {"CFBundleName", name},
                                         {"CFBundleExecutable", name}}));
    appstest::writeProgram(root_, bundle + "/Contents/MacOS/" + name, appstest::machHeader(2));
    return root_.at(bundle);
  }

  bool attributesSupported() {
    std::string probe = root_.writeFile("/probe", "x");
    std::string name = ::geteuid() == 0 ? "trusted.gatewise.probe" : "user.gatewise.probe";
    return ::setxattr(probe.c_str(), name.c_str(), "1", 1, 0) == 0;
  }

  gwtest::TempRoot root_;
  appstest::ScopedEnv dataHome_{"XDG_DATA_HOME", root_.at("/home/data")};
  appstest::ScopedEnv language_{"LANGUAGE", "de"};
  std::string tool_;
};

TEST_F(AppRecordTest, RecordReadsLocalizedNameIdentifierAndNoRequirementWhenUnsigned) {
  std::string editor = makeBundle("Editor", "org.example.editor");
  root_.writeFile("/Applications/Editor.app/Contents/Resources/de.lproj/InfoPlist.strings",
                  "\"CFBundleName\" = \"Bearbeiter\";\n");
  GWAppRef record = GWApp::appWithPath(editor);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->path(), editor);
  EXPECT_EQ(record->displayName(), "Bearbeiter");
  EXPECT_EQ(record->bundleID(), "org.example.editor");
  EXPECT_FALSE(record->appID());
  EXPECT_FALSE(record->dictionary()->contains("appID"));
  EXPECT_EQ(record->plistRepresentation(), record->dictionary()) << "the live dictionary";

  GWAppRef bare = GWApp::appWithPath(tool_);
  EXPECT_EQ(bare->displayName(), "tool.sh");
  EXPECT_EQ(bare->bundleID(), "com.unknown.tool");

  gwtest::LogCapture log;
  EXPECT_FALSE(GWApp::appWithPath(std::string()));
  EXPECT_TRUE(log.contains("*** Couldn't get url from path"));
  EXPECT_FALSE(GWApp::appWithPath(std::nullopt));
}

TEST_F(AppRecordTest, ProgramsCorruptedBySigningGetOnlyADetachedSignature) {
  std::string skype = makeBundle("Skype", "com.skype.skype");
  {
    gwtest::LogCapture log;
    GWAppRef record = GWApp::appWithPath(skype, false, true, false);
    ASSERT_TRUE(record);
    EXPECT_TRUE(log.contains("IsExecutableThatGetsCorruptedByCodesigning [") &&
                log.contains("*** Found app incompatible with codesigning: " + skype +
                             "/Contents/MacOS/Skype"));
    EXPECT_TRUE(
        log.contains("*** Asked to create embedded sig for app not compatible with "
                     "embedded sigs and no option to create detached sig."));
    EXPECT_FALSE(record->detachedSignature());
    EXPECT_FALSE(record->appID());
  }
  GWAppRef record = GWApp::appWithPath(skype, false, true, true);
  ASSERT_TRUE(record && record->detachedSignature() && record->appID());
  EXPECT_EQ(::getxattr(skype.c_str(), "user.gatewise.signature", nullptr, 0), -1);
  EXPECT_EQ(::getxattr(skype.c_str(), "trusted.gatewise.signature", nullptr, 0), -1);
  gw::GWError error{"untouched", 0, ""};
  EXPECT_TRUE(record->validateCodeSig(&error));
  EXPECT_EQ(error.domain, "untouched");

  // A program changed after signing no longer passes.
  std::ofstream(skype + "/Contents/MacOS/Skype", std::ios::app) << "patched";
  EXPECT_FALSE(record->validateCodeSig(nullptr));

  // The dictionary form carries both, ready for a white list.
  auto form = record->plistRepresentation();
  EXPECT_TRUE(form->get("appID").isData());
  EXPECT_TRUE(form->get("detachedSignature").isData());
}

TEST_F(AppRecordTest, SigningSubAppsDetachedAndTheProgramEmbedded) {
  if (!attributesSupported()) GTEST_SKIP() << "the temporary root keeps no extended attributes";
  std::string suite = makeBundle("Suite", "org.example.suite");
  std::string helper = appstest::writeProgram(root_, "/Applications/Suite.app/Contents/Helpers/h",
                                              appstest::machHeader(2));
  GWAppRef record = GWApp::appWithPath(suite, true, true, true);
  ASSERT_TRUE(record && record->appID());
  EXPECT_FALSE(record->detachedSignature()) << "a writable program is signed embedded";
  ASSERT_TRUE(record->subApps() && record->subApps()->size() == 1);
  auto sub = (*record->subApps())[0].ifObject<GWApp>();
  EXPECT_EQ(sub->path(), helper);
  EXPECT_TRUE(sub->appID());
  EXPECT_TRUE(record->validateCodeSig(nullptr));

  // A record made later without signing still finds the embedded signature's requirement, and
  // does not sign again.
  GWAppRef again = GWApp::appWithPath(suite);
  EXPECT_EQ(again->appID(), record->appID());
  gwtest::LogCapture log;
  GWApp::appWithPath(suite, false, true, false);
  EXPECT_TRUE(log.contains("GWApp: GWCreateAppSignature failed (already signed?)"));
}

TEST_F(AppRecordTest, VanishedOrPathlessRecordsValidateButSayWhy) {
  GWAppRef noRequirement = GWApp::appWithDictionary(gw::plist::Value::newDictionary({}));
  gw::GWError error;
  EXPECT_TRUE(noRequirement->validateCodeSig(&error));
  EXPECT_EQ(error.code, 0);

  GWAppRef pathless = GWApp::appWithDictionary(
      gw::plist::Value::newDictionary({{"appID", gw::plist::Data{0xFA, 0xDE}}}));
  EXPECT_TRUE(pathless->validateCodeSig(&error));
  EXPECT_EQ(error.domain, "GWErrorDomain");
  EXPECT_EQ(error.code, -1);
  EXPECT_EQ(error.localizedFailureReason, "Object has no path reference.");

  pathless->setPath(root_.at("/Applications/Gone.app"));
  EXPECT_TRUE(pathless->validateCodeSig(&error));
  EXPECT_EQ(error.code, -2);
  EXPECT_EQ(error.localizedFailureReason, "Application is no longer located at its stored path.");
  EXPECT_TRUE(pathless->validateCodeSig(nullptr));

  pathless->setPath(tool_);
  EXPECT_FALSE(pathless->validateCodeSig(nullptr)) << "unsigned program, malformed requirement";
}

TEST_F(AppRecordTest, CopiesAreIndependentAndTheImmutableOneRefusesChanges) {
  GWAppRef record = GWApp::appWithPath(tool_);
  GWAppRef frozen = record->copy();
  GWAppRef thawed = record->mutableCopy();
  EXPECT_NE(frozen->dictionary(), record->dictionary());
  {
    gwtest::LogCapture log;
    frozen->setDisplayName("Changed");
    frozen->setPath(std::nullopt);
    EXPECT_TRUE(log.contains("*** Caught exception"));
  }
  EXPECT_EQ(frozen->displayName(), "tool.sh");
  EXPECT_EQ(frozen->path(), tool_);
  thawed->setDisplayName("Changed");
  EXPECT_EQ(thawed->displayName(), "Changed");
  EXPECT_EQ(record->displayName(), "tool.sh");
  record->setBundleID(std::nullopt);
  EXPECT_FALSE(record->dictionary()->contains("bundleID"));
  EXPECT_EQ(thawed->bundleID(), "com.unknown.tool");
}

TEST_F(AppRecordTest, DisplayNameForAnotherUserFollowsTheirLanguage) {
  std::string editor = makeBundle("Editor", "org.example.editor");
  root_.writeFile("/Applications/Editor.app/Contents/Resources/fr.lproj/InfoPlist.strings",
                  "\"CFBundleName\" = \"Éditeur\";\n");
  root_.writeFile(
      "/Applications/Editor.app/Contents/Resources/de.lproj/InfoPlist.strings",
      "\"CFBundleName\" = \"Bearbeiter\";\n\"CFBundleDisplayName\" = \"Textbearbeiter\";\n");
  {
    gwtest::LogCapture log;
    EXPECT_FALSE(GWCopyAppDisplayNameForUser("root", editor));
    EXPECT_TRUE(log.contains("No language prefs."));
  }
  root_.writeFile("/var/lib/AccountsService/users/root", "[User]\nLanguage=fr_FR.UTF-8\n");
  EXPECT_EQ(GWCopyAppDisplayNameForUser("root", editor), "Éditeur");
  root_.writeFile("/var/lib/AccountsService/users/root", "[User]\nLanguage=de_CH\n");
  EXPECT_EQ(GWCopyAppDisplayNameForUser("root", editor), "Textbearbeiter");
  root_.writeFile("/var/lib/AccountsService/users/root", "[User]\nLanguage=ja\n");
  {
    gwtest::LogCapture log;
    EXPECT_FALSE(GWCopyAppDisplayNameForUser("root", editor));
    EXPECT_TRUE(log.contains("No preferred bundle locs."));
  }
  EXPECT_FALSE(GWCopyAppDisplayNameForUser("root", root_.at("/Applications/Missing.app")));
}

}  // namespace
