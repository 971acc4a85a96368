#include "platform/bundle/bundle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/temp_root.h"

namespace gw::bundle {
namespace {

const char* kInfoPlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>CFBundleIdentifier</key><string>org.example.clock</string>
  <key>CFBundleName</key><string>Clock</string>
  <key>CFBundleExecutable</key><string>ClockMain</string>
  <key>CFBundleDevelopmentRegion</key><string>English</string>
</dict>
</plist>
)";

std::string utf16LittleEndianWithBOM(std::u16string_view text) {
  std::string out = "\xFF\xFE";
  for (char16_t c : text) {
    out += char(c & 0xFF);
    out += char(c >> 8);
  }
  return out;
}

// A bundle in the Contents layout with three localizations, one of them in UTF-16.
std::string makeClockApp(const gwtest::TempRoot& root) {
  root.writeFile("/Applications/Clock.app/Contents/Info.plist", kInfoPlist);
  root.writeFile("/Applications/Clock.app/Contents/MacOS/ClockMain",
                 "\x7f"
                 "ELF");
  root.writeFile("/Applications/Clock.app/Contents/Resources/English.lproj/InfoPlist.strings",
                 "CFBundleName = \"Clock\";\n\"CFBundleDisplayName\" = \"Clock\";");
  root.writeFile("/Applications/Clock.app/Contents/Resources/de.lproj/InfoPlist.strings",
                 utf16LittleEndianWithBOM(u"\"N\" = \"Uhr\u00fc\";"));
  root.writeFile("/Applications/Clock.app/Contents/Resources/fr_CA.lproj/Localizable.strings",
                 "\"hello\" = \"allo\";");
  root.writeFile("/Applications/Clock.app/Contents/Resources/icon.png", "png");
  root.writeFile("/Applications/Clock.app/Contents/Resources/English.lproj/Help.html", "help");
  return root.at("/Applications/Clock.app");
}

TEST(BundleTest, ContentsLayoutGivesInfoExecutableAndLocalizations) {
  gwtest::TempRoot root;
  BundleRef clock = Bundle::open(makeClockApp(root) + "/");
  ASSERT_TRUE(clock);
  EXPECT_EQ(clock->bundleIdentifier(), "org.example.clock");
  EXPECT_EQ(clock->executablePath(), root.at("/Applications/Clock.app/Contents/MacOS/ClockMain"));
  EXPECT_EQ(clock->localizations(), (std::vector<std::string>{"English", "de", "fr_CA"}));
  EXPECT_EQ(clock->preferredLocalizations({"de-DE", "en"}), std::vector<std::string>{"de"});
  EXPECT_EQ(clock->preferredLocalizations({"ja"}), std::vector<std::string>{"English"});

  auto german = clock->localizedInfoDictionary({"de_AT"});
  ASSERT_TRUE(german);
  EXPECT_EQ(german->get("N").string(), "Uhr\xC3\xBC");
  auto english = clock->localizedInfoDictionary({"en_GB"});
  ASSERT_TRUE(english);
  EXPECT_EQ(english->get("CFBundleDisplayName").string(), "Clock");

  EXPECT_EQ(clock->pathForResource("icon", "png", {"de"}),
            root.at("/Applications/Clock.app/Contents/Resources/icon.png"));
  EXPECT_EQ(clock->pathForResource("Help", "html", {"de"}),
            root.at("/Applications/Clock.app/Contents/Resources/English.lproj/Help.html"));
  EXPECT_EQ(clock->pathForResource("../Info", "plist", {"de"}), "");
  EXPECT_EQ(clock->localizedString("hello", "", "", {"fr"}), "allo");
  EXPECT_EQ(clock->localizedString("absent", "fallback", "", {"fr"}), "fallback");

  EXPECT_EQ(Bundle::openWithExecutableIfLooksLikeBundle(clock->executablePath())->path(),
            clock->path());
  ASSERT_TRUE(copyInfoDictionaryForPath(clock->path()));
}

TEST(BundleTest, BareExecutableIsAnEmptyBundleAndMissingInfoIsEmpty) {
  gwtest::TempRoot root;
  std::string tool = root.writeFile("/usr/bin/tool", "#!/bin/sh\n");
  BundleRef bare = Bundle::open(tool);
  ASSERT_TRUE(bare);
  EXPECT_TRUE(bare->isBareFile());
  EXPECT_TRUE(bare->infoDictionary()->empty());
  EXPECT_EQ(bare->executablePath(), tool);
  EXPECT_TRUE(bare->localizations().empty());
  EXPECT_EQ(bare->pathForResource("x", "png"), "");
  EXPECT_FALSE(copyInfoDictionaryForPath(tool));
  EXPECT_FALSE(Bundle::openWithExecutableIfLooksLikeBundle(tool));

  // A folder without Info.plist still opens; the executable is guessed from its name.
  root.writeFile("/Applications/Bare.app/Contents/MacOS/Bare", "x");
  BundleRef folder = Bundle::open(root.at("/Applications/Bare.app"));
  ASSERT_TRUE(folder);
  EXPECT_TRUE(folder->infoDictionary()->empty());
  EXPECT_FALSE(folder->bundleIdentifier());
  EXPECT_EQ(folder->executablePath(), root.at("/Applications/Bare.app/Contents/MacOS/Bare"));
  EXPECT_FALSE(folder->localizedInfoDictionary({"en"}));

  EXPECT_FALSE(Bundle::open(root.at("/nothing/here")));
}

TEST(BundleTest, FlatFolderOffersItsLprojFolders) {
  gwtest::TempRoot root;
  root.writeFile("/share/gatewise/English.lproj/Localizable.strings", "");
  root.writeFile("/share/gatewise/German.lproj/Localizable.strings", "");
  root.writeFile("/share/gatewise/pt_BR.lproj/Localizable.strings", "");
  root.makeFolder("/share/gatewise/notes.lproj.txt");
  BundleRef library = Bundle::open(root.at("/share/gatewise"));
  ASSERT_TRUE(library);
  EXPECT_EQ(library->localizations(), (std::vector<std::string>{"English", "German", "pt_BR"}));
  EXPECT_EQ(library->preferredLocalizations({"pt", "de"}), std::vector<std::string>{"pt_BR"});
  EXPECT_EQ(library->preferredLocalizations({"de-CH"}), std::vector<std::string>{"German"});
}

TEST(LocalizationTest, LanguagesComeFromTheEnvironmentWithoutEncodings) {
  ::setenv("LANGUAGE", "de_CH.UTF-8:fr::C", 1);
  EXPECT_EQ(processLanguages(), (std::vector<std::string>{"de_CH", "fr"}));
  ::unsetenv("LANGUAGE");
  ::setenv("LC_ALL", "ja_JP.eucJP@mod", 1);
  EXPECT_EQ(processLanguages(), std::vector<std::string>{"ja_JP"});
  ::unsetenv("LC_ALL");
}

}  // namespace
}  // namespace gw::bundle
