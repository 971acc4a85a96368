#include "platform/fs/file_io.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/temp_root.h"

namespace gw::fs {
namespace {

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

TEST(FileIOTest, ReadFileHonoursItsBoundAndRefusesWhatIsNotARegularFile) {
  gwtest::TempRoot root;
  std::string path = root.writeFile("/ten", "0123456789");
  EXPECT_EQ(readFile(path, 10).value_or("?"), "0123456789");
  std::string error;
  EXPECT_FALSE(readFile(path, 9, &error));
  EXPECT_NE(error.find("too large"), std::string::npos) << error;
  EXPECT_EQ(readFile(root.writeFile("/empty", ""), 0).value_or("?"), "");

  EXPECT_FALSE(readFile(root.makeFolder("/folder"), 100, &error));
  EXPECT_NE(error.find("not a regular file"), std::string::npos) << error;
  // A FIFO without a writer must be refused at once, not waited on.
  std::string fifo = root.at("/fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(readFile(fifo, 100, &error));
  EXPECT_NE(error.find("not a regular file"), std::string::npos) << error;
  EXPECT_FALSE(readFile(root.at("/missing"), 100, &error));
  EXPECT_NE(error.find("/missing"), std::string::npos) << error;
}

TEST(FileIOTest, AtomicWriteReplacesTheFileWithTheAskedMode) {
  gwtest::TempRoot root;
  std::string path = root.writeFile("/prefs.plist", "old");
  ASSERT_TRUE(writeFileAtomically(path, "new contents", 0600));
  EXPECT_EQ(readFile(path, 100).value_or("?"), "new contents");
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(namesIn(root.path()), std::vector<std::string>{"prefs.plist"});
}

TEST(FileIOTest, AtomicWriteCutShortByAFileSizeLimitKeepsTheOldFile) {
  gwtest::TempRoot root;
  std::string path = root.writeFile("/prefs.plist", "old");
  std::string big(1 << 20, 'x');
  // The child may write at most 64 KiB per file: the write fails half-way, as on a full disk.
  int status = gwtest::runInChild([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {65536, 65536};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 3;
    std::string error;
    if (writeFileAtomically(path, big, 0644, &error)) return 0;
    return error.find("cannot write") != std::string::npos ? 1 : 2;
  });
  EXPECT_EQ(status, 1);
  EXPECT_EQ(readFile(path, 100).value_or("?"), "old");
  EXPECT_EQ(namesIn(root.path()), std::vector<std::string>{"prefs.plist"});
}

TEST(FileIOTest, AtomicWriteIntoAReadOnlyFolderFailsAndLeavesNothingBehind) {
  gwtest::TempRoot root;
  std::string folder = root.makeFolder("/locked");
  std::string path = root.writeFile("/locked/prefs.plist", "old");
  ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(folder.c_str(), 0555), 0);
  ASSERT_EQ(::chmod(path.c_str(), 0666), 0);  // the file itself is writable, the folder is not
  int status = gwtest::runInChild([&] {
    if (!gwtest::dropToUnprivilegedUser()) return 3;
    std::string error;
    if (writeFileAtomically(path, "new", 0644, &error)) return 0;
    return error.find("cannot create a temporary file") != std::string::npos ? 1 : 2;
  });
  EXPECT_EQ(status, 1);
  EXPECT_EQ(readFile(path, 100).value_or("?"), "old");
  EXPECT_EQ(namesIn(folder), std::vector<std::string>{"prefs.plist"});
}

TEST(FileIOTest, AtomicWriteOverAFolderFailsAndRemovesItsTemporaryFile) {
  gwtest::TempRoot root;
  std::string folder = root.makeFolder("/target");
  root.writeFile("/target/inside", "kept");
  std::string error;
  EXPECT_FALSE(writeFileAtomically(folder, "bytes", 0644, &error));
  EXPECT_NE(error.find("cannot rename"), std::string::npos) << error;
  EXPECT_EQ(namesIn(root.path()), std::vector<std::string>{"target"});
  EXPECT_EQ(readFile(folder + "/inside", 100).value_or("?"), "kept");
  EXPECT_FALSE(writeFileAtomically(root.at("/no/such/folder/file"), "bytes", 0644, &error));
}

// A user's home as root reads it: whatever the user links in place of a folder or of the file
// itself is refused, and so is a FIFO, without waiting for a writer.
TEST(FileIOTest, ReadFileBelowFollowsNoLinkOnTheWayDown) {
  gwtest::TempRoot root;
  std::string secret = root.writeFile("/etc/shadow-like", "LANG=secret");
  root.writeFile("/home/kim/.config/locale.conf", "LANG=de_DE.UTF-8\n");
  std::string home = root.at("/home/kim");
  EXPECT_EQ(readFileBelow(home, ".config/locale.conf", 1024), "LANG=de_DE.UTF-8\n");
  EXPECT_EQ(readFileBelow(home, "./.config//locale.conf", 1024), "LANG=de_DE.UTF-8\n");
  EXPECT_EQ(readFileBelow(home, ".config/locale.conf", 4), std::nullopt);  // the bound holds
  EXPECT_EQ(readFileBelow(home, ".config/../.config/locale.conf", 1024), std::nullopt);

  // The file itself a link.
  std::string file = root.at("/home/kim/.config/locale.conf");
  ASSERT_EQ(std::remove(file.c_str()), 0);
  ASSERT_EQ(::symlink(secret.c_str(), file.c_str()), 0);
  std::string error;
  EXPECT_EQ(readFileBelow(home, ".config/locale.conf", 1024, &error), std::nullopt);
  EXPECT_NE(error.find("locale.conf"), std::string::npos) << error;
  EXPECT_EQ(readFile(file, 1024), "LANG=secret");  // what a following reader would have read

  // A folder on the way a link.
  root.writeFile("/elsewhere/locale.conf", "LANG=secret");
  std::filesystem::remove_all(root.at("/home/kim/.config"));
  ASSERT_EQ(::symlink(root.at("/elsewhere").c_str(), root.at("/home/kim/.config").c_str()), 0);
  EXPECT_EQ(readFileBelow(home, ".config/locale.conf", 1024), std::nullopt);

  // A FIFO.
  std::filesystem::remove(root.at("/home/kim/.config"));
  std::filesystem::create_directory(root.at("/home/kim/.config"));
  ASSERT_EQ(::mkfifo(root.at("/home/kim/.config/locale.conf").c_str(), 0600), 0);
  EXPECT_EQ(readFileBelow(home, ".config/locale.conf", 1024), std::nullopt);
}

}  // namespace
}  // namespace gw::fs
