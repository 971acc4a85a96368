// Nested executables of a bundle: the executable test on Mach-O and ELF headers, the walk's order
// and exclusions, and the older walker.
#include <gatewise/apps.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "apps/apps_fixtures.h"
#include "support/log_capture.h"

namespace {

using appstest::Bytes;
using appstest::elfImage;
using appstest::machHeader;

class NestedAppsTest : public ::testing::Test {
 protected:
  // Puts bytes in a package of its own and asks whether the walk lists them.
  bool listed(const Bytes& bytes, mode_t mode = 0755) {
    std::string bundle = "/Probe" + std::to_string(++probes_) + ".app";
    std::string file =
        appstest::writeProgram(root_, bundle + "/Contents/Helpers/probe", bytes, mode);
    auto paths = GWGetAppPathsAtPath(root_.at(bundle));
    return paths && paths->size() == 1 && (*paths)[0] == file;
  }

  gwtest::TempRoot root_;
  int probes_ = 0;
};

TEST_F(NestedAppsTest, MachOExecutablesAndPreloadedImagesCountLibrariesDoNot) {
  EXPECT_TRUE(listed(machHeader(2)));              // executable, big-endian
  EXPECT_TRUE(listed(machHeader(2, false)));       // little-endian
  EXPECT_TRUE(listed(machHeader(5, true, true)));  // preloaded, 64-bit
  EXPECT_FALSE(listed(machHeader(6)));             // dynamic library
  EXPECT_FALSE(listed(machHeader(8, false)));      // bundle
  EXPECT_FALSE(listed(machHeader(2), 0644)) << "no execute bit";
  EXPECT_TRUE(listed(appstest::fatFile({machHeader(6), machHeader(2, false)})));
  EXPECT_FALSE(listed(appstest::fatFile({machHeader(6), machHeader(1)})));
  EXPECT_FALSE(listed(Bytes{'#', '!', '/', 'b', 'i', 'n', '/', 's', 'h', '\n'}));
  EXPECT_FALSE(listed(Bytes{}));

  // A fat header claiming four billion slices (or a Java class file) reads only what is there.
  Bytes hostile = {0xCA, 0xFE, 0xBA, 0xBE, 0xFF, 0xFF, 0xFF, 0xFF};
  hostile.resize(4096, 0xFF);
  EXPECT_FALSE(listed(hostile));
}

TEST_F(NestedAppsTest, ElfExecutablesNeedTheirTypeAnInterpreterOrThePieFlag) {
  EXPECT_TRUE(listed(elfImage(2)));  // ET_EXEC
  EXPECT_TRUE(listed(elfImage(2, false, std::nullopt, false, true)));
  EXPECT_TRUE(listed(elfImage(3, true)));               // PIE with a loader
  EXPECT_TRUE(listed(elfImage(3, false, 0x08000001)));  // static-pie
  EXPECT_TRUE(listed(elfImage(3, false, 0x08000000, false, true)));
  EXPECT_FALSE(listed(elfImage(3)));              // a shared library
  EXPECT_FALSE(listed(elfImage(3, false, 0x1)));  // DF_1_NOW only
  EXPECT_FALSE(listed(elfImage(1)));              // relocatable object
  // The host's own programs count.
  std::string real = "/bin/true";
  if (::access(real.c_str(), X_OK) == 0) {
    std::string copy = root_.at("/Real.app/Contents/Helpers/true");
    root_.makeFolder("/Real.app/Contents/Helpers");
    ASSERT_TRUE(std::filesystem::copy_file(real, copy));
    EXPECT_EQ(GWGetAppPathsAtPath(root_.at("/Real.app")), std::vector<std::string>{copy});
  }
  // Truncated headers and absurd program header counts are refused without reading past the file.
  Bytes truncated = elfImage(3, true);
  truncated.resize(70);
  EXPECT_FALSE(listed(truncated));
  Bytes manyHeaders = elfImage(3);
  manyHeaders[56] = 0xFF, manyHeaders[57] = 0xFF;
  EXPECT_FALSE(listed(manyHeaders));
}

TEST_F(NestedAppsTest, DeepestFirstWithoutTheBundlesOwnExecutableOrLinks) {
  Bytes program = machHeader(2);
  root_.writeFile("/Main.app/Contents/Info.plist",
                  appstest::infoPlist({{"CFBundleExecutable", "Main"}}));
  appstest::writeProgram(root_, "/Main.app/Contents/MacOS/Main", program);
  std::string tool = appstest::writeProgram(root_, "/Main.app/Contents/Helpers/Tool", program);
  std::string agent = root_.makeFolder("/Main.app/Contents/Helpers/Agent.app");
  appstest::writeProgram(root_, "/Main.app/Contents/Helpers/Agent.app/Contents/MacOS/Agent",
                         program);
  std::string helper = appstest::writeProgram(
      root_, "/Main.app/Contents/Helpers/Agent.app/Contents/MacOS/Helper", program);
  ASSERT_EQ(::symlink("Tool", root_.at("/Main.app/Contents/Helpers/ToolLink").c_str()), 0);
  ASSERT_EQ(::symlink("../..", root_.at("/Main.app/Contents/Helpers/Loop").c_str()), 0);

  // The walk's own order: depth first, names in byte order.
  EXPECT_EQ(GWGetAppPathsAtPath(root_.at("/Main.app")),
            (std::vector<std::string>{agent, helper, tool}));

  // The record's sub-apps: deepest first, stable among equals.
  gw::GWAppRef record = gw::GWApp::appWithPath(root_.at("/Main.app"), true);
  ASSERT_TRUE(record);
  std::vector<std::string> subApps;
  for (const auto& value : *record->subApps())
    subApps.push_back(*value.ifObject<gw::GWApp>()->path());
  EXPECT_EQ(subApps, (std::vector<std::string>{helper, agent, tool}));
  EXPECT_FALSE((*record->subApps())[0].ifObject<gw::GWApp>()->subApps()) << "one flat level";

  EXPECT_FALSE(GWGetAppPathsAtPath(root_.at("/Main.app/Contents"))) << "not a package";
  EXPECT_FALSE(GWGetAppPathsAtPath(std::nullopt));
  gw::GWAppRef plain = gw::GWApp::appWithPath(tool, true);
  EXPECT_FALSE(plain->subApps()) << "no sub-apps stored when none were found";
}

TEST_F(NestedAppsTest, AbsurdlyDeepFoldersEndTheWalkThere) {
  std::string deep = "/Deep.app";
  for (int level = 0; level < 70; ++level) deep += "/d";
  appstest::writeProgram(root_, deep + "/tool", machHeader(2));
  std::string shallow = appstest::writeProgram(root_, "/Deep.app/d/d/tool", machHeader(2));
  gwtest::LogCapture log(1);
  EXPECT_EQ(GWGetAppPathsAtPath(root_.at("/Deep.app")), std::vector<std::string>{shallow});
  EXPECT_TRUE(log.contains("*** Folders nest too deep at"));
}

TEST_F(NestedAppsTest, OlderWalkerTakesExtensionlessFilesWithAnExecuteBit) {
  std::string a = appstest::writeProgram(root_, "/Old/bin/a", {'x'});
  appstest::writeProgram(root_, "/Old/bin/b.sh", {'x'});
  appstest::writeProgram(root_, "/Old/bin/c", {'x'}, 0644);
  std::string d = appstest::writeProgram(root_, "/Old/deep/er/d", {'x'});
  EXPECT_EQ(GWGetAppPathsAtPathOLD(root_.at("/Old")), (std::vector<std::string>{a, d}));
  EXPECT_FALSE(GWGetAppPathsAtPathOLD(a));
  EXPECT_FALSE(GWGetAppPathsAtPathOLD(root_.at("/missing")));
}

TEST(PathHelpersTest, ComponentOrderAndStandardizing) {
  EXPECT_EQ(ReversePathComponentCountSort("/a/b", "/a/b/c", nullptr), 1);
  EXPECT_EQ(ReversePathComponentCountSort("/a/b/c", "/a", nullptr), -1);
  EXPECT_EQ(ReversePathComponentCountSort("/a/b", "/c/d/", nullptr), 0);
  char cwd[4096];
  ASSERT_TRUE(::getcwd(cwd, sizeof cwd));
  std::string here = cwd;
  EXPECT_EQ(MyStandardizePath("."), here);
  EXPECT_EQ(MyStandardizePath("x/./y/../z"), here == "/" ? "/x/z" : here + "/x/z");
  EXPECT_EQ(MyStandardizePath("/a//b/../c/"), "/a/c");
}

}  // namespace
