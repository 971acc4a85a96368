// Substitute bundle information: the two unknown prefixes, the order of fallbacks, the bundle
// around an executable, URLs, and the four-character codes.
#include <gatewise/bundle_info.h>
#include <gtest/gtest.h>

#include "apps/apps_fixtures.h"
#include "support/log_capture.h"

namespace {

class BundleInfoTest : public ::testing::Test {
 protected:
  std::string idOf(const std::string& path) {
    return GWCopyBundleIDFudgingIfNecessary(path, std::nullopt).value_or("(nil)");
  }
  std::string infoIDOf(const std::string& path) {
    auto info = GWCopyInfoDictFudgingIfNecessary(path, std::nullopt);
    if (!info) return "(nil)";
    const std::string* id = info->get("CFBundleIdentifier").ifString();
    return id ? *id : "(none)";
  }
  gwtest::TempRoot root_;
};

TEST_F(BundleInfoTest, BareProgramGetsTheTwoUnknownPrefixes) {
  std::string tool = appstest::writeProgram(root_, "/bin/tool.sh", {'x'});
  EXPECT_EQ(idOf(tool), "com.unknown.tool");
  EXPECT_EQ(infoIDOf(tool), "com.morvane.unknown.tool");
  auto info = GWCopyInfoDictFudgingIfNecessary(tool, std::nullopt);
  EXPECT_EQ(info->get("CFBundleName").string(), "tool");
  EXPECT_TRUE(info->isMutable());
  gwtest::LogCapture log;
  EXPECT_EQ(GWCopyBundleNameFudgingIfNecessary(tool, std::nullopt), "tool");
  EXPECT_TRUE(log.contains("Couldn't find bundle name for " + tool + ", using file name"));
  // The URL form, and the path winning over it.
  EXPECT_EQ(GWCopyBundleIDFudgingIfNecessary(std::nullopt, "file://" + tool), "com.unknown.tool");
  EXPECT_EQ(GWCopyBundleIDFudgingIfNecessary(tool, "file:///elsewhere/x"), "com.unknown.tool");
  EXPECT_FALSE(GWCopyBundleIDFudgingIfNecessary(std::nullopt, std::nullopt));
  EXPECT_FALSE(GWCopyBundleNameFudgingIfNecessary(std::nullopt, std::nullopt));
  EXPECT_FALSE(GWCopyInfoDictFudgingIfNecessary(std::nullopt, std::nullopt));
  // A program that is not there still gets names: nothing is read from it.
  EXPECT_EQ(idOf(root_.at("/gone/Ghost.app")), "com.unknown.Ghost");
}

TEST_F(BundleInfoTest, InformationDictionaryKeysAreTriedInOrder) {
  root_.writeFile(
      "/A.app/Contents/Info.plist",
      appstest::infoPlist({{"CFBundleIdentifier", "org.example.a"}, {"CFBundleName", "Alpha"}}));
  root_.writeFile("/B.app/Contents/Info.plist",
                  appstest::infoPlist({{"CFBundleName", "Beta"}, {"CFBundleExecutable", "b"}}));
  root_.writeFile("/C.app/Contents/Info.plist",
                  appstest::infoPlist({{"CFBundleExecutable", "gamma"}}));
  root_.writeFile("/D.app/Contents/Info.plist", "<plist version=\"1.0\"><dict><key>x");
  EXPECT_EQ(idOf(root_.at("/A.app")), "org.example.a");
  EXPECT_EQ(idOf(root_.at("/B.app")), "com.unknown.Beta");
  EXPECT_EQ(idOf(root_.at("/C.app")), "com.unknown.gamma");
  EXPECT_EQ(idOf(root_.at("/D.app")), "com.unknown.D") << "a malformed dictionary counts as none";
  EXPECT_EQ(infoIDOf(root_.at("/D.app")), "com.morvane.unknown.D");
  EXPECT_EQ(infoIDOf(root_.at("/B.app")), "(none)") << "the real dictionary, not a substitute";
  EXPECT_EQ(GWCopyBundleNameFudgingIfNecessary(root_.at("/B.app"), std::nullopt), "Beta");
  EXPECT_EQ(GWCopyBundleNameFudgingIfNecessary(root_.at("/C.app"), std::nullopt), "C");

  // The executable of a bundle speaks for its bundle; a look-alike outside MacOS does not.
  std::string executable = appstest::writeProgram(root_, "/A.app/Contents/MacOS/a", {'x'});
  EXPECT_EQ(idOf(executable), "org.example.a");
  EXPECT_EQ(GWCopyBundleNameFudgingIfNecessary(executable, std::nullopt), "Alpha");
  std::string stray = appstest::writeProgram(root_, "/A.app/Contents/Tools/t", {'x'});
  EXPECT_EQ(idOf(stray), "com.unknown.t");
}

TEST(OSTypeTest, FourCharactersMostSignificantFirst) {
  EXPECT_EQ(GWGetStringFromOSType(0x504A3033), "PJ03");
  EXPECT_EQ(GWGetStringFromOSType(0x20202020), "    ");
  EXPECT_EQ(GWGetStringFromOSType(0), std::string(4, '\0'));
  const std::uint8_t code[4] = {'F', 'P', '9', '8'};
  EXPECT_EQ(gw::stringWithOSType(code), "FP98");
  const std::uint8_t zero[4] = {0, 0, 0, 0};
  EXPECT_FALSE(gw::stringWithOSType(zero));
}

}  // namespace
