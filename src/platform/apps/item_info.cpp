#include "platform/apps/item_info.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <string_view>

#include "platform/fs/file_info.h"

namespace gw::iteminfo {
namespace {

constexpr std::array<std::string_view, 8> kPackageExtensions = {
    ".app", ".bundle", ".framework", ".plugin", ".wdgt", ".kext", ".xpc", ".appex"};

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix) {
  if (text.size() <= suffix.size()) return false;
  return std::equal(
      suffix.begin(), suffix.end(), text.end() - suffix.size(),
      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

std::string_view lastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isPackageFolder(const std::string& path) {
  std::string_view name = lastComponent(path);
  for (std::string_view extension : kPackageExtensions)
    if (endsWithIgnoringCase(name, extension)) return true;
  return fs::isRegularFile(path + "/Contents/Info.plist");
}

}  // namespace

std::optional<std::uint32_t> itemFlags(const std::string& path, int* error) {
  struct stat status;
  if (path.empty() || ::stat(path.c_str(), &status) != 0) {
    if (error) *error = path.empty() ? ENOENT : errno;
    return std::nullopt;
  }
  std::uint32_t flags = 0;
  if (S_ISREG(status.st_mode)) {
    flags |= kItemIsPlainFile;
    if (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) flags |= kItemIsExecutableFile;
  } else if (S_ISDIR(status.st_mode) && isPackageFolder(path)) {
    flags |= kItemIsPackage;
    if (endsWithIgnoringCase(lastComponent(path), ".app")) flags |= kItemIsApplication;
  }
  return flags;
}

bool isPackage(const std::string& path) {
  std::optional<std::uint32_t> flags = itemFlags(path);
  return flags && (*flags & kItemIsPackage);
}

std::optional<std::uint32_t> fileCreatorCode(const std::string&) { return std::nullopt; }

}  // namespace gw::iteminfo
