#include "platform/fs/file_info.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/temp_root.h"

namespace gw::fs {
namespace {

TEST(FileInfoTest, TypeTestsFollowLinksExceptIsSymbolicLink) {
  gwtest::TempRoot root;
  std::string file = root.writeFile("/file", "x");
  std::string folder = root.makeFolder("/folder");
  std::string fileLink = root.at("/file-link"), dangling = root.at("/dangling");
  ASSERT_EQ(::symlink("file", fileLink.c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", dangling.c_str()), 0);
  std::string fifo = root.at("/fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

  struct Case {
    std::string path;
    bool exists, directory, regular, link;
  } cases[] = {
      {file, true, false, true, false},    {folder, true, true, false, false},
      {fileLink, true, false, true, true}, {dangling, false, false, false, true},
      {fifo, true, false, false, false},   {root.at("/missing"), false, false, false, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(exists(c.path), c.exists) << c.path;
    EXPECT_EQ(isDirectory(c.path), c.directory) << c.path;
    EXPECT_EQ(isRegularFile(c.path), c.regular) << c.path;
    EXPECT_EQ(isSymbolicLink(c.path), c.link) << c.path;
  }
  EXPECT_EQ(readSymbolicLink(dangling), "nowhere");
  EXPECT_EQ(readSymbolicLink(file), std::nullopt);
  std::string longTarget(1000, 'n');
  ASSERT_EQ(::symlink(longTarget.c_str(), root.at("/long").c_str()), 0);
  EXPECT_EQ(readSymbolicLink(root.at("/long")), longTarget);
}

TEST(FileInfoTest, CreateFolderSetsModeAndOwnerExactly) {
  gwtest::TempRoot root;
  mode_t previousMask = ::umask(077);
  std::string path = root.at("/Library/Application Support/Tutela");
  std::string error;
  EXPECT_FALSE(createFolder(path, 0755, std::nullopt, false, &error)) << "parents are missing";
  std::optional<Owner> owner;
  if (::geteuid() == 0) owner = Owner{1234, 5678};
  EXPECT_TRUE(createFolder(path + "/", 0751, owner, true, &error)) << error;
  ::umask(previousMask);

  for (const char* folder :
       {"/Library", "/Library/Application Support", "/Library/Application Support/Tutela"}) {
    struct stat st;
    ASSERT_EQ(::stat(root.at(folder).c_str(), &st), 0) << folder;
    EXPECT_EQ(st.st_mode & 07777, 0751u) << folder;
    if (owner) {
      EXPECT_EQ(st.st_uid, 1234u) << folder;
      EXPECT_EQ(st.st_gid, 5678u) << folder;
    }
  }
  // Existing folders are fine and left alone; a file in the way is not.
  EXPECT_TRUE(createFolder(path, 0700, std::nullopt, false, &error)) << error;
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0751u);
  std::string file = root.writeFile("/plain", "x");
  EXPECT_FALSE(createFolder(file, 0755, std::nullopt, false, &error));
  EXPECT_FALSE(createFolder(file + "/below", 0755, std::nullopt, true, &error));
}

}  // namespace
}  // namespace gw::fs
