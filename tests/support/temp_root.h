// A temporary system root for one test: a fresh folder, GATEWISE_ROOT pointing at it while the
// object lives, and everything below it removed afterwards.
#pragma once

#include <string>
#include <string_view>

namespace gwtest {

class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& path() const { return path_; }
  // path() + absolutePath ("/Library/..." -> "<root>/Library/...").
  std::string at(std::string_view absolutePath) const;
  // Writes a file below the root, creating its folders; returns its full path.
  std::string writeFile(std::string_view absolutePath, std::string_view contents) const;
  // Creates a folder (and its parents) below the root; returns its full path.
  std::string makeFolder(std::string_view absolutePath) const;

 private:
  std::string path_;
  std::string previousRoot_;
  bool hadPreviousRoot_ = false;
};

// Removes a file tree; used by TempRoot and by tests that make their own scratch folders.
void removeTree(const std::string& path);

}  // namespace gwtest
