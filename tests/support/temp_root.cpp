#include "support/temp_root.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace gwtest {

TempRoot::TempRoot() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/gatewise-root-XXXXXX";
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
  if (const char* old = std::getenv("GATEWISE_ROOT")) {
    hadPreviousRoot_ = true;
    previousRoot_ = old;
  }
  ::setenv("GATEWISE_ROOT", path_.c_str(), 1);
}

TempRoot::~TempRoot() {
  if (hadPreviousRoot_) {
    ::setenv("GATEWISE_ROOT", previousRoot_.c_str(), 1);
  } else {
    ::unsetenv("GATEWISE_ROOT");
  }
  removeTree(path_);
}

std::string TempRoot::at(std::string_view absolutePath) const {
  return path_ + std::string(absolutePath);
}

std::string TempRoot::makeFolder(std::string_view absolutePath) const {
  std::string full = at(absolutePath);
  std::filesystem::create_directories(full);
  return full;
}

std::string TempRoot::writeFile(std::string_view absolutePath, std::string_view contents) const {
  std::string full = at(absolutePath);
  std::filesystem::create_directories(std::filesystem::path(full).parent_path());
  std::ofstream out(full, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), std::streamsize(contents.size()));
  if (!out) throw std::runtime_error("cannot write " + full);
  return full;
}

void removeTree(const std::string& path) {
  std::error_code ignored;
  // Make unreadable folders readable again first, so tests may leave mode-000 folders behind.
  ::nftw(
      path.c_str(),
      [](const char* p, const struct stat* st, int type, struct FTW*) {
        if (type == FTW_D || type == FTW_DNR) ::chmod(p, (st->st_mode & 07777) | 0700);
        return 0;
      },
      16, FTW_PHYS);
  std::filesystem::remove_all(path, ignored);
}

}  // namespace gwtest
