#include "daemon/apps/program_bundle.h"

#include <gatewise/plist.h>

#include <optional>

#include "daemon/limits/guarded_file.h"

namespace gw::daemon {
namespace {

std::string lastComponent(const std::string& path) {
  std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string parentOf(const std::string& path) {
  std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos || slash == 0 ? std::string() : path.substr(0, slash);
}

// The Info.plist's dictionary of a bundle folder; nullopt when there is none.
std::optional<plist::Value> infoOf(const std::string& folder) {
  std::optional<std::string> bytes =
      readRegularFile(folder + "/Contents/Info.plist", kMaxInfoPlistSize, nullptr);
  if (!bytes) return std::nullopt;
  plist::ReadResult read = plist::readPropertyList(std::string_view(*bytes));
  if (!read || !read.value->isDictionary()) return std::nullopt;
  return std::move(read.value);
}

}  // namespace

ProgramBundle programBundleOf(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  ProgramBundle program;
  program.name = lastComponent(trimmed);
  std::optional<plist::Value> info = infoOf(trimmed);
  std::string folder = trimmed;
  if (!info) {
    std::string macos = parentOf(trimmed);
    std::string contents = parentOf(macos);
    if (lastComponent(macos) != "MacOS" || lastComponent(contents) != "Contents") return program;
    folder = parentOf(contents);
    if (folder.empty() || !(info = infoOf(folder))) return program;
  }
  program.folder = folder;
  const plist::Dictionary& fields = *info->ifDictionary();
  if (const std::string* id = fields.get("CFBundleIdentifier").ifString()) program.bundleID = *id;
  if (const std::string* name = fields.get("CFBundleName").ifString(); name && !name->empty()) {
    program.name = *name;
  } else {
    program.name = lastComponent(folder);
  }
  return program;
}

}  // namespace gw::daemon
