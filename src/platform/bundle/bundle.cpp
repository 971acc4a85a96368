#include "platform/bundle/bundle.h"

#include <dirent.h>
#include <gatewise/log.h>

#include <algorithm>
#include <memory>

#include "platform/fs/file_info.h"

namespace gw::bundle {
namespace {

constexpr std::string_view kLprojSuffix = ".lproj";

std::string lastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string withoutExtension(const std::string& name) {
  std::size_t dot = name.rfind('.');
  return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

std::string parentOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Names from info dictionaries and callers become one path component at most.
bool isComponent(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

plist::DictionaryRef readInfoDictionary(const std::string& file) {
  if (!fs::isRegularFile(file)) return nullptr;
  plist::ReadResult result = plist::readPropertyListFile(file);
  if (!result || !result.value->isDictionary()) {
    GW_LOG(1, "*** Couldn't read info dictionary %s: %s", file.c_str(),
           result ? "not a dictionary" : result.error.c_str());
    return nullptr;
  }
  return result.value->dictionary();
}

}  // namespace

BundleRef Bundle::open(const std::string& rawPath) {
  std::string path = rawPath;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  if (path.empty() || !fs::exists(path)) return nullptr;
  auto bundle = std::shared_ptr<Bundle>(new Bundle());
  bundle->path_ = path;
  if (!fs::isDirectory(path)) {
    bundle->bareFile_ = true;
  } else if (fs::isDirectory(path + "/Contents")) {
    bundle->contentsLayout_ = true;
    bundle->contents_ = path + "/Contents";
    bundle->resources_ = bundle->contents_ + "/Resources";
  } else {
    bundle->contents_ = path;
    bundle->resources_ = path;
  }
  if (!bundle->bareFile_) bundle->info_ = readInfoDictionary(bundle->contents_ + "/Info.plist");
  if (!bundle->info_) bundle->info_ = plist::Dictionary::make({}, false);
  return bundle;
}

BundleRef Bundle::openWithExecutableIfLooksLikeBundle(const std::string& executablePath) {
  if (!fs::isRegularFile(executablePath)) return nullptr;
  std::string macos = parentOf(executablePath);
  std::string contents = parentOf(macos);
  if (lastComponent(macos) != "MacOS" || lastComponent(contents) != "Contents") return nullptr;
  return open(parentOf(contents));
}

std::optional<std::string> Bundle::infoString(std::string_view key) const {
  const plist::Value* value = info_->find(key);
  if (!value || !value->isString()) return std::nullopt;
  return value->string();
}

std::string Bundle::developmentRegion() const {
  if (auto region = infoString("CFBundleDevelopmentRegion")) return *region;
  auto all = localizations();
  for (const char* fallback : {"English", "en"}) {
    if (std::find(all.begin(), all.end(), fallback) != all.end()) return fallback;
  }
  return {};
}

std::string Bundle::executablePath() const {
  if (bareFile_) return path_;
  std::string folder = contentsLayout_ ? contents_ + "/MacOS" : contents_;
  std::string name =
      infoString("CFBundleExecutable").value_or(withoutExtension(lastComponent(path_)));
  if (!isComponent(name)) return {};
  std::string executable = folder + "/" + name;
  return fs::isRegularFile(executable) ? executable : std::string();
}

std::vector<std::string> Bundle::localizations() const {
  std::vector<std::string> names;
  if (resources_.empty()) return names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(resources_.c_str()), &::closedir);
  if (!dir) return names;
  while (dirent* entry = ::readdir(dir.get())) {
    std::string_view name = entry->d_name;
    if (name.size() <= kLprojSuffix.size() || !name.ends_with(kLprojSuffix)) continue;
    if (!fs::isDirectory(resources_ + "/" + std::string(name))) continue;
    names.emplace_back(name.substr(0, name.size() - kLprojSuffix.size()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> Bundle::preferredLocalizations(
    const std::vector<std::string>& languages) const {
  return bundle::preferredLocalizations(
      localizations(), languages.empty() ? processLanguages() : languages, developmentRegion());
}

std::string Bundle::pathForResourceInLocalization(std::string_view name, std::string_view type,
                                                  std::string_view localization) const {
  if (resources_.empty() || !isComponent(name) || !isComponent(localization)) return {};
  std::string file(name);
  if (!type.empty()) file += "." + std::string(type);
  std::string path =
      resources_ + "/" + std::string(localization) + std::string(kLprojSuffix) + "/" + file;
  return fs::isRegularFile(path) ? path : std::string();
}

std::string Bundle::pathForResource(std::string_view name, std::string_view type,
                                    const std::vector<std::string>& languages) const {
  if (resources_.empty() || !isComponent(name)) return {};
  std::string file(name);
  if (!type.empty()) file += "." + std::string(type);
  if (!isComponent(file)) return {};
  if (std::string unlocalized = resources_ + "/" + file; fs::isRegularFile(unlocalized))
    return unlocalized;
  std::vector<std::string> order = preferredLocalizations(languages);
  order.push_back(developmentRegion());
  for (const std::string& localization : order) {
    if (std::string path = pathForResourceInLocalization(name, type, localization); !path.empty())
      return path;
  }
  return {};
}

plist::DictionaryRef Bundle::localizedInfoDictionary(
    const std::vector<std::string>& languages) const {
  std::vector<std::string> order = preferredLocalizations(languages);
  order.push_back(developmentRegion());
  for (const std::string& localization : order) {
    std::string path = pathForResourceInLocalization("InfoPlist", "strings", localization);
    if (path.empty()) continue;
    std::string error;
    auto table = readStringsFile(path, &error);
    if (!table) {
      GW_LOG(1, "*** Couldn't read %s", error.c_str());
      continue;
    }
    auto dictionary = plist::Dictionary::make();
    for (auto& [key, value] : *table) dictionary->set(key, value);
    dictionary->makeImmutable();
    return dictionary;
  }
  return nullptr;
}

std::string Bundle::localizedString(std::string_view key, std::string_view value,
                                    std::string_view table,
                                    const std::vector<std::string>& languages) const {
  std::string fallback(value.empty() ? key : value);
  std::string tableName(table.empty() ? "Localizable" : table);
  std::vector<std::string> order = preferredLocalizations(languages);
  order.push_back(developmentRegion());
  for (const std::string& localization : order) {
    std::string path = pathForResourceInLocalization(tableName, "strings", localization);
    if (path.empty()) continue;
    auto strings = readStringsFile(path);
    if (!strings) continue;
    auto found = strings->find(key);
    if (found != strings->end()) return found->second;
    return fallback;
  }
  return fallback;
}

plist::DictionaryRef copyInfoDictionaryForPath(const std::string& path) {
  BundleRef bundle = Bundle::open(path);
  if (!bundle || bundle->infoDictionary()->empty()) return nullptr;
  return bundle->infoDictionary();
}

}  // namespace gw::bundle
