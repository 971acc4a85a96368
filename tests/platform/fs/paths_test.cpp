#include "platform/fs/paths.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <string>

#include "support/temp_root.h"

namespace gw::fs {
namespace {

TEST(PathsTest, DotsAndDuplicateSlashesAreRemoved) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"/", "/"},
      {"//", "/"},
      {"/a//b/./c/../d/", "/a/b/d"},
      {"/..", "/"},
      {"/../../a/..", "/"},
      {"/a/b/../../../c", "/c"},
      {"/Library/Managed Preferences/./kim/", "/Library/Managed Preferences/kim"},
      {"/a/..b/.c/...", "/a/..b/.c/..."},
      {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(standardizedPath(c.in), c.out) << c.in;
}

TEST(PathsTest, TildesExpandThroughThePasswordDatabase) {
  struct passwd* self = ::getpwuid(::getuid());
  ASSERT_NE(self, nullptr);
  std::string home = standardizedPath(self->pw_dir);
  EXPECT_EQ(standardizedPath("~"), home);
  EXPECT_EQ(standardizedPath("~/x/../Library//Prefs/"), standardizedPath(home + "/Library/Prefs"));
  EXPECT_EQ(standardizedPath(std::string("~") + self->pw_name + "/a"),
            standardizedPath(home + "/a"));
  EXPECT_EQ(homeFolderForUserName(self->pw_name), std::string(self->pw_dir));
  // An unknown user: the path is left exactly as given.
  EXPECT_EQ(standardizedPath("~no-such-user-gw//a/./b"), "~no-such-user-gw//a/./b");
  EXPECT_FALSE(homeFolderForUserName("no-such-user-gw"));
  EXPECT_FALSE(homeFolderForUserName(""));
}

TEST(PathsTest, RelativePathsUseTheCurrentFolderAsFirstRead) {
  char buffer[4096];
  ASSERT_NE(::getcwd(buffer, sizeof buffer), nullptr);
  std::string start = buffer;
  EXPECT_EQ(standardizedPath("a/./b/../c"), standardizedPath(start + "/a/c"));
  // The folder is cached: moving elsewhere does not change what relative paths mean.
  gwtest::TempRoot root;
  ASSERT_EQ(::chdir(root.path().c_str()), 0);
  std::string afterMove = standardizedPath("x");
  ASSERT_EQ(::chdir(start.c_str()), 0);
  EXPECT_EQ(afterMove, standardizedPath(start + "/x"));
  EXPECT_EQ(cachedCurrentFolder(), start);
}

}  // namespace
}  // namespace gw::fs
