#include "platform/apps/application_registry.h"

#include <gatewise/log.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <set>
#include <string_view>

#include "platform/apps/desktop_entry.h"
#include "platform/apps/item_info.h"
#include "platform/bundle/bundle.h"
#include "platform/fs/file_info.h"
#include "platform/fs/file_io.h"
#include "platform/fs/paths.h"
#include "platform/fs/root.h"
#include "platform/fs/tree_walk.h"

namespace gw::registry {
namespace {

constexpr std::size_t kMaxDesktopEntrySize = 256 * 1024;
constexpr int kMaxLinkHops = 40;
constexpr int kMaxFolderDepth = 8;
constexpr char kDefaultDataDirs[] = "/usr/local/share:/usr/share";
constexpr char kDefaultSearchPath[] =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr std::string_view kDesktopSuffix = ".desktop";

std::vector<std::string> split(std::string_view list) {
  std::vector<std::string> parts;
  while (!list.empty()) {
    std::size_t colon = list.find(':');
    std::string_view part = list.substr(0, colon);
    if (!part.empty()) parts.emplace_back(part);
    list = colon == std::string_view::npos ? std::string_view() : list.substr(colon + 1);
  }
  return parts;
}

std::string environment(const char* name, const char* fallback) {
  const char* value = ::secure_getenv(name);
  return value != nullptr && value[0] != '\0' ? value : fallback;
}

std::optional<std::string> userDataFolder() {
  if (const char* xdg = ::secure_getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/')
    return std::string(xdg);
  if (const char* home = ::secure_getenv("HOME"); home != nullptr && home[0] == '/')
    return std::string(home) + "/.local/share";
  return std::nullopt;
}

// A system path below the system root, with ".." taken out first so it cannot climb out.
std::string rootedSystemPath(const std::string& absolute) {
  return fs::rootedPath(fs::standardizedPath(absolute));
}

bool isBelowRoot(const std::string& path) {
  std::string root = fs::systemRoot();
  return root == "/" || path == root || path.starts_with(root + "/");
}

std::string parentOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

// Follows links at the end of path, staying below the system root.
std::optional<std::string> followLinks(std::string path, std::string* error) {
  for (int hop = 0; hop <= kMaxLinkHops; ++hop) {
    std::optional<std::string> target = fs::readSymbolicLink(path);
    if (!target) return path;
    path = target->starts_with('/') ? rootedSystemPath(*target)
                                    : fs::standardizedPath(parentOf(path) + "/" + *target);
    if (!isBelowRoot(path)) {
      *error = "a symbolic link leads out of the system root";
      return std::nullopt;
    }
  }
  *error = "too many levels of symbolic links";
  return std::nullopt;
}

bool isExecutableFile(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH));
}

// "kde/app.desktop" -> "kde-app".
std::string desktopFileID(std::string_view relative) {
  std::string id(relative.substr(0, relative.size() - kDesktopSuffix.size()));
  for (char& c : id)
    if (c == '/') c = '-';
  return id;
}

plist::DictionaryRef dictionaryOf(
    std::initializer_list<std::pair<const char*, std::string>> pairs) {
  auto dictionary = plist::Dictionary::make();
  for (const auto& [key, value] : pairs) dictionary->set(key, value);
  return dictionary;
}

class Collector {
 public:
  void addDesktopEntries(const std::string& folder);
  void addBundles(const std::string& folder);
  std::vector<RegisteredApplication> take() { return std::move(applications_); }

 private:
  void addDesktopEntry(const std::string& file, const std::string& id);
  bool add(RegisteredApplication application) {
    if (!paths_.insert(application.path).second) return false;
    applications_.push_back(std::move(application));
    return true;
  }

  std::vector<std::string> languages_ = bundle::processLanguages();
  std::set<std::string> ids_, paths_;
  std::vector<RegisteredApplication> applications_;
};

void logUnreadable(const fs::WalkEntry& entry) {
  GW_LOG(1, "*** Couldn't read %@: %s", std::string(entry.path), std::strerror(entry.error));
}

void Collector::addDesktopEntries(const std::string& folder) {
  if (!fs::isDirectory(folder)) return;
  fs::walkFileTree(folder, fs::WalkOptions{}, [&](const fs::WalkEntry& entry) {
    if (entry.type == fs::EntryType::Error) {
      logUnreadable(entry);
      return fs::WalkAction::Continue;
    }
    if (entry.type == fs::EntryType::Folder)
      return entry.depth >= kMaxFolderDepth ? fs::WalkAction::SkipContents
                                            : fs::WalkAction::Continue;
    if (entry.name.size() <= kDesktopSuffix.size() || !entry.name.ends_with(kDesktopSuffix))
      return fs::WalkAction::Continue;
    std::string_view relative = entry.path.substr(folder.size() + 1);
    std::string id = desktopFileID(relative);
    if (ids_.insert(id).second) addDesktopEntry(std::string(entry.path), id);
    return fs::WalkAction::Continue;
  });
}

void Collector::addDesktopEntry(const std::string& file, const std::string& id) {
  std::string error;
  auto skip = [&](const std::string& reason) {
    GW_LOG(1, "*** Skipping desktop entry %@: %@", file, reason);
  };
  std::optional<std::string> text = fs::readFile(file, kMaxDesktopEntrySize, &error);
  if (!text) return skip(error);
  std::optional<DesktopEntry> entry = parseDesktopEntry(*text, &error);
  if (!entry) return skip(error);
  if (entry->value("Type") != "Application") return;  // links and folders are not programs
  if (entry->isTrue("Hidden")) return;                // the user's way to delete an entry
  std::optional<std::string> name = entry->value("Name");
  if (!name || name->empty()) return skip("no Name");
  std::optional<std::string> exec = entry->value("Exec");
  if (!exec) return skip("no Exec");
  std::optional<std::string> word = programOfExec(*exec);
  if (!word) return skip("Exec names no program");
  std::optional<std::string> program = resolveProgram(*word, &error);
  if (!program) return skip(error);
  std::string executableName = program->substr(program->rfind('/') + 1);
  add({*program,
       dictionaryOf({{"CFBundleName", *name},
                     {"CFBundleIdentifier", id},
                     {"CFBundleExecutable", executableName}}),
       dictionaryOf({{"CFBundleName", *entry->localizedValue("Name", languages_)}})});
}

void Collector::addBundles(const std::string& folder) {
  if (!fs::isDirectory(folder)) return;
  fs::walkFileTree(folder, fs::WalkOptions{}, [&](const fs::WalkEntry& entry) {
    if (entry.type == fs::EntryType::Error) {
      logUnreadable(entry);
      return fs::WalkAction::Continue;
    }
    if (entry.type != fs::EntryType::Folder) return fs::WalkAction::Continue;
    std::string path(entry.path);
    std::optional<std::uint32_t> flags = iteminfo::itemFlags(path);
    if (entry.depth > 0 && flags && (*flags & iteminfo::kItemIsApplication)) {
      add({path, nullptr, nullptr});
      return fs::WalkAction::SkipContents;
    }
    return entry.depth >= kMaxFolderDepth ? fs::WalkAction::SkipContents : fs::WalkAction::Continue;
  });
}

}  // namespace

std::vector<std::string> desktopEntryFolders() {
  std::vector<std::string> folders;
  if (std::optional<std::string> home = userDataFolder())
    folders.push_back(*home + "/applications");
  for (const std::string& folder : split(environment("XDG_DATA_DIRS", kDefaultDataDirs))) {
    if (folder.starts_with('/')) folders.push_back(rootedSystemPath(folder + "/applications"));
  }
  return folders;
}

std::optional<std::string> resolveProgram(const std::string& word, std::string* error) {
  std::string unused;
  if (error == nullptr) error = &unused;
  if (word.find('/') != std::string::npos) {
    if (!word.starts_with('/')) {
      *error = "relative program path " + word;
      return std::nullopt;
    }
    std::optional<std::string> program = followLinks(rootedSystemPath(word), error);
    if (program && !isExecutableFile(*program)) {
      *error = "no program at " + word;
      return std::nullopt;
    }
    return program;
  }
  for (const std::string& folder : split(environment("PATH", kDefaultSearchPath))) {
    if (!folder.starts_with('/')) continue;
    std::string candidate = rootedSystemPath(folder + "/" + word);
    if (!fs::exists(candidate) && !fs::isSymbolicLink(candidate)) continue;
    std::optional<std::string> program = followLinks(candidate, error);
    if (!program) return std::nullopt;
    if (isExecutableFile(*program)) return program;
  }
  *error = "program " + word + " not found";
  return std::nullopt;
}

std::vector<RegisteredApplication> copyAllApplications() {
  Collector collector;
  for (const std::string& folder : desktopEntryFolders()) collector.addDesktopEntries(folder);
  collector.addBundles(fs::rootedPath("/Applications"));
  return collector.take();
}

}  // namespace gw::registry
