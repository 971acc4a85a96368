// Finding the executables nested inside a bundle, the older walker kept for callers that still use
// it, and the path helpers both rely on.
#include <dirent.h>
#include <fcntl.h>
#include <gatewise/apps.h>
#include <gatewise/log.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/apps/item_info.h"
#include "platform/bundle/bundle.h"
#include "platform/fs/paths.h"
#include "platform/fs/tree_walk.h"
#include "platform/fs/unique_fd.h"

namespace {

namespace iteminfo = gw::iteminfo;

// Bundles nest a few levels at most; anything deeper is a hostile or broken tree.
constexpr int kMaxScanDepth = 64;

std::string lastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// "a.out" has one, ".profile" and "tool." have none.
bool hasExtension(std::string_view name) {
  std::size_t dot = name.rfind('.');
  return dot != std::string_view::npos && dot > 0 && dot + 1 < name.size();
}

std::size_t componentCount(std::string_view path) {
  std::size_t count = path.starts_with('/') ? 1 : 0;  // the root counts as a component
  std::size_t i = 0;
  while (i < path.size()) {
    while (i < path.size() && path[i] == '/') ++i;
    if (i == path.size()) break;
    ++count;
    while (i < path.size() && path[i] != '/') ++i;
  }
  return count;
}

// The names in folder, in byte order so that every scan of a tree gives the same order.
std::vector<std::string> shallowListing(const std::string& folder) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
  if (!dir) {
    GW_LOG(1, "*** Couldn't list %@: %s", folder, std::strerror(errno));
    return names;
  }
  while (dirent* entry = ::readdir(dir.get())) {
    std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool samePath(const std::string& full, const std::optional<std::string>& excluded) {
  if (!excluded) return false;
  if (full == *excluded) return true;
  return lastComponent(full) == lastComponent(*excluded) &&
         MyStandardizePath(full) == MyStandardizePath(*excluded);
}

bool IsExecutableAtPath(const std::string& path) {
  int error = 0;
  std::optional<std::uint32_t> flags = iteminfo::itemFlags(path, &error);
  if (!flags) {
    GW_LOG(1, "LSCopyItemInfoForRef returned error: %d", error);
    return false;
  }
  if (*flags & iteminfo::kItemIsApplication) return true;
  if (!(*flags & iteminfo::kItemIsExecutableFile) || !(*flags & iteminfo::kItemIsPlainFile) ||
      path.empty())
    return false;
  gw::fs::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  return fd.get() >= 0 && iteminfo::isExecutableImage(fd.get());
}

void scanFolder(const std::string& folder, std::vector<std::string>& results,
                const std::optional<std::string>& excludedPath, int depth) {
  if (depth > kMaxScanDepth) {
    GW_LOG(1, "*** Folders nest too deep at %@", folder);
    return;
  }
  for (const std::string& entry : shallowListing(folder)) {
    std::string full = folder + "/" + entry;
    struct stat status;
    if (::lstat(full.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
      GW_LOG(3, "Symlink: %@", full);
      continue;
    }
    if (samePath(full, excludedPath)) {
      GW_LOG(3, "Same path: %@", full);
      continue;
    }
    if (::stat(full.c_str(), &status) != 0) continue;
    bool isFolder = S_ISDIR(status.st_mode);
    if (IsExecutableAtPath(full)) {
      results.push_back(full);
      if (isFolder && IsFilePackageAtPath(full)) {
        if (gw::bundle::BundleRef inner = gw::bundle::Bundle::open(full)) {
          std::string executable = inner->executablePath();
          scanFolder(full, results,
                     executable.empty() ? std::nullopt : std::optional<std::string>(executable),
                     depth + 1);
        }
      }
    } else if (isFolder) {
      scanFolder(full, results, excludedPath, depth + 1);
    }
  }
}

}  // namespace

void ScanFolderForApps(const std::string& folder, std::vector<std::string>& results,
                       const std::optional<std::string>& excludedPath) {
  try {
    scanFolder(folder, results, excludedPath, 0);
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
}

std::optional<std::vector<std::string>> GWGetAppPathsAtPath(
    const std::optional<std::string>& path) {
  using Result = std::optional<std::vector<std::string>>;
  return gw::returningOnException(__func__, __LINE__, Result(), [&]() -> Result {
    if (!path || !IsFilePackageAtPath(*path)) return std::nullopt;
    gw::bundle::BundleRef bundle = gw::bundle::Bundle::open(*path);
    if (!bundle) return std::nullopt;
    std::string executable = bundle->executablePath();
    std::vector<std::string> results;
    ScanFolderForApps(*path, results,
                      executable.empty() ? std::nullopt : std::optional<std::string>(executable));
    return results;
  });
}

std::optional<std::vector<std::string>> GWGetAppPathsAtPathOLD(
    const std::optional<std::string>& path) {
  using Result = std::optional<std::vector<std::string>>;
  return gw::returningOnException(__func__, __LINE__, Result(), [&]() -> Result {
    struct stat status;
    if (!path || ::stat(path->c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
      return std::nullopt;
    std::vector<std::string> results;
    gw::fs::WalkOptions options;
    gw::fs::walkFileTree(*path, options, [&](const gw::fs::WalkEntry& entry) {
      if (entry.depth == 0 || entry.type == gw::fs::EntryType::Error)
        return gw::fs::WalkAction::Continue;
      if (hasExtension(entry.name)) return gw::fs::WalkAction::Continue;
      std::string relative(entry.path.substr(path->size()));
      while (relative.starts_with('/')) relative.erase(0, 1);
      std::string candidate = gw::fs::standardizedPath(*path + "/" + relative);
      struct stat target;
      if (::stat(candidate.c_str(), &target) == 0 && S_ISREG(target.st_mode) &&
          (target.st_mode & 0111))
        results.push_back(candidate);
      return gw::fs::WalkAction::Continue;
    });
    return results;
  });
}

int ReversePathComponentCountSort(const std::string& a, const std::string& b, void*) {
  std::size_t n = componentCount(a), m = componentCount(b);
  return n < m ? 1 : n > m ? -1 : 0;
}

bool IsFilePackageAtPath(const std::string& path) { return gw::iteminfo::isPackage(path); }

std::string MyStandardizePath(const std::string& path) {
  const std::optional<std::string>& current = gw::fs::cachedCurrentFolder();
  std::string folder = current.value_or("");
  if (path == ".") return folder;
  if (path == "..") return gw::fs::standardizedPath(folder + "/..");
  if (path.starts_with('/') || path.starts_with('~')) return gw::fs::standardizedPath(path);
  return gw::fs::standardizedPath(folder + "/" + path);
}
