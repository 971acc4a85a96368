#include "platform/fs/tree_walk.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/temp_root.h"

namespace gw::fs {
namespace {

// "<depth> <kind> <name>" per visit: F folder, f file, l link, o other, E error; "/" marks the
// post-order visit of a folder.
std::string describe(const WalkEntry& e) {
  const char* kinds = "FfloE";
  std::string text = std::to_string(e.depth) + " " + kinds[int(e.type)] + " " + std::string(e.name);
  if (e.postOrder) text += "/";
  if (e.type == EntryType::Error) text += " errno=" + std::to_string(e.error);
  return text;
}

class TreeWalkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    top_ = root_.makeFolder("/top");
    root_.writeFile("/top/b.txt", "b");
    root_.writeFile("/top/a/inner.txt", "inner");
    root_.makeFolder("/top/a/empty");
    ASSERT_EQ(::symlink("/", root_.at("/top/c-link").c_str()), 0);  // never followed
    ASSERT_EQ(::mkfifo(root_.at("/top/d-fifo").c_str(), 0600), 0);
  }

  std::vector<std::string> walk(const WalkOptions& options,
                                WalkAction (*decide)(const WalkEntry&) = nullptr) {
    std::vector<std::string> seen;
    std::string error;
    EXPECT_TRUE(walkFileTree(
        top_, options,
        [&](const WalkEntry& e) {
          seen.push_back(describe(e));
          return decide ? decide(e) : WalkAction::Continue;
        },
        &error))
        << error;
    return seen;
  }

  gwtest::TempRoot root_;
  std::string top_;
};

TEST_F(TreeWalkTest, VisitsPhysicallyInNameOrderBeforeAndAfterFolders) {
  WalkOptions both;
  both.postOrder = true;
  EXPECT_EQ(walk(both), (std::vector<std::string>{"0 F top", "1 F a", "2 F empty", "2 F empty/",
                                                  "2 f inner.txt", "1 F a/", "1 f b.txt",
                                                  "1 l c-link", "1 o d-fifo", "0 F top/"}));
}

TEST_F(TreeWalkTest, VisitorSkipsContentsOrStops) {
  auto skipA = [](const WalkEntry& e) {
    return e.name == "a" ? WalkAction::SkipContents : WalkAction::Continue;
  };
  EXPECT_EQ(walk({}, skipA), (std::vector<std::string>{"0 F top", "1 F a", "1 f b.txt",
                                                       "1 l c-link", "1 o d-fifo"}));
  auto stopAtB = [](const WalkEntry& e) {
    return e.name == "b.txt" ? WalkAction::Stop : WalkAction::Continue;
  };
  EXPECT_EQ(walk({}, stopAtB).back(), "1 f b.txt");
}

TEST_F(TreeWalkTest, UnreadableEntriesAreReportedAndTheWalkGoesOn) {
  std::string missing;
  EXPECT_TRUE(walkFileTree(root_.at("/nothing-here"), {}, [&](const WalkEntry& e) {
    missing = describe(e);
    return WalkAction::Continue;
  }));
  EXPECT_EQ(missing, "0 E nothing-here errno=" + std::to_string(ENOENT));

  // An unprivileged walker meets a folder it may not read.
  root_.makeFolder("/top/a/locked/secret");
  ASSERT_EQ(::chmod(root_.at("/top/a/locked").c_str(), 0), 0);
  for (const char* folder : {"", "/top", "/top/a"}) ::chmod(root_.at(folder).c_str(), 0755);
  int status = gwtest::runInChild([&] {
    if (!gwtest::dropToUnprivilegedUser()) return 10;
    std::vector<std::string> seen;
    walkFileTree(top_, {}, [&](const WalkEntry& e) {
      seen.push_back(describe(e));
      return WalkAction::Continue;
    });
    bool reported = false, after = false;
    for (const auto& s : seen) {
      reported |= s == "2 E locked errno=" + std::to_string(EACCES);
      after |= reported && s == "1 f b.txt";
    }
    return reported && after ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace gw::fs
