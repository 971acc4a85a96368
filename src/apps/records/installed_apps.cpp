// The installed programs as the preference editor lists them, and a bundle's name in another
// user's language.
#include <gatewise/apps.h>
#include <gatewise/bundle_info.h>
#include <gatewise/log.h>

#include "platform/apps/application_registry.h"
#include "platform/bundle/bundle.h"
#include "platform/bundle/strings_file.h"
#include "platform/fs/root.h"
#include "platform/prefs/user_languages.h"

namespace {

using gw::plist::DictionaryRef;

std::optional<std::string> stringIn(const DictionaryRef& dictionary, std::string_view key) {
  if (!dictionary) return std::nullopt;
  const std::string* text = dictionary->get(key).ifString();
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

// The path as the system sees it, without the system root in front.
std::string pathInSystem(const std::string& path) {
  std::string root = gw::fs::systemRoot();
  if (root != "/" && path.starts_with(root + "/")) return path.substr(root.size());
  return path;
}

// Programs in the trash or belonging to the system itself are not offered.
bool isOffered(const std::string& path) {
  return path.find(".Trash") == std::string::npos && !pathInSystem(path).starts_with("/System/");
}

}  // namespace

gw::plist::ArrayRef GWCopyInstalledApplications() {
  auto applications = gw::plist::Array::make();
  return gw::returningOnException(__func__, __LINE__, applications, [&] {
    std::vector<gw::registry::RegisteredApplication> registered =
        gw::registry::copyAllApplications();
    GW_LOG(2, "found %d apps", int(registered.size()));
    for (const auto& application : registered) {
      const std::string& path = application.path;
      if (!isOffered(path)) continue;
      DictionaryRef info = application.infoDictionary;
      DictionaryRef localized = application.localizedInfoDictionary;
      if (!info) {
        gw::bundle::BundleRef bundle = gw::bundle::Bundle::open(path);
        if (bundle && !bundle->infoDictionary()->empty()) {
          info = bundle->infoDictionary();
          localized = bundle->localizedInfoDictionary();
        }
      }
      if (!info) {
        GW_LOG(1, "no infoDictionary found. fudging.");
        info = GWCopyInfoDictFudgingIfNecessary(path, std::nullopt);
        if (!info) continue;
      }
      std::optional<std::string> name = stringIn(localized, "CFBundleName");
      if (!name) name = stringIn(info, "CFBundleName");
      if (!name) continue;
      auto entry = gw::plist::Dictionary::make();
      entry->set("displayName", *name);
      entry->set("bundleID", stringIn(info, "CFBundleIdentifier").value_or("unknown"));
      entry->set("path", path.empty() ? std::string("unknown") : path);
      applications->append(entry);
    }
    return applications;
  });
}

std::optional<std::string> GWCopyAppDisplayNameForUser(const std::string& user,
                                                       const std::string& path) {
  return gw::returningOnException(__func__, __LINE__, std::optional<std::string>(), [&] {
    std::optional<std::string> none;
    gw::bundle::BundleRef bundle = gw::bundle::Bundle::open(path);
    if (!bundle) return none;
    std::vector<std::string> languages = gw::prefs::copyUserLanguages(user);
    if (languages.empty()) {
      GW_LOG(2, "No language prefs.");
      return none;
    }
    std::vector<std::string> localizations = bundle->preferredLocalizations(languages);
    if (localizations.empty()) {
      GW_LOG(2, "No preferred bundle locs.");
      return none;
    }
    for (const std::string& localization : localizations) {
      std::string file =
          bundle->pathForResourceInLocalization("InfoPlist", "strings", localization);
      if (file.empty()) continue;
      auto table = gw::bundle::readStringsFile(file);
      if (!table) continue;
      for (const char* key : {"CFBundleDisplayName", "CFBundleName"}) {
        if (auto found = table->find(key); found != table->end())
          return std::optional<std::string>(found->second);
      }
    }
    return none;
  });
}
