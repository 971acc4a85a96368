// Files the tool writes at a path its user names: replaced whole, never written through a link.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/fs/file_io.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

TEST(CliOutFileTest, AnOutputPathThatIsALinkIsReplacedNotWrittenThrough) {
  gwtest::TempRoot root;
  std::string victim = root.writeFile("/victim", "keep me");
  std::string out = root.at("/items.archive");
  ASSERT_EQ(::symlink(victim.c_str(), out.c_str()), 0);
  gwtest::RunResult run =
      gwtest::runCli({"status-items", "archive", out, "--xml", "--item", "group,Games,curfew,60"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(gw::fs::readFile(victim, 1024), "keep me");
  struct stat info;
  ASSERT_EQ(::lstat(out.c_str(), &info), 0);
  EXPECT_TRUE(S_ISREG(info.st_mode));
  std::optional<std::string> written = gw::fs::readFile(out, 1 << 20);
  ASSERT_TRUE(written);
  EXPECT_NE(written->find("Games"), std::string::npos);
  // Nothing but the two files and the output: no temporary file left behind.
  int entries = 0;
  for (const auto& entry : std::filesystem::directory_iterator(root.at("/"))) {
    (void)entry;
    ++entries;
  }
  EXPECT_EQ(entries, 2);

  // A folder that cannot take the file: exit 2 with the reason, the victim still untouched.
  gwtest::RunResult refused = gwtest::runCli(
      {"status-items", "archive", root.at("/no/such/x"), "--item", "group,Games,curfew,60"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_NE(refused.err.find("No such file or directory"), std::string::npos) << refused.err;
}

}  // namespace
