// Bundles: a program or plug-in folder with an information dictionary, an executable and
// localized resources, or a bare file that stands for an empty bundle.
//
// Layouts understood, tried in this order:
//   "<path>/Contents/Info.plist", "<path>/Contents/MacOS/<executable>", "<path>/Contents/Resources"
//   "<path>/Info.plist", "<path>/<executable>", resources in "<path>" itself (flat bundles, and the
//   library's own resource folder)
//   a file that is not a folder: an empty bundle whose executable is the file itself.
// Localizations are the "<name>.lproj" folders of the resources folder.
//
// A Bundle is read when opened and immutable afterwards, so one may be shared between threads. Open
// returns nullptr when nothing exists at the path. An information dictionary that cannot be read is
// logged at level 1 and treated as empty. Nothing here throws.
#pragma once

#include <gatewise/plist.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bundle/strings_file.h"

namespace gw::bundle {

class Bundle;
using BundleRef = std::shared_ptr<const Bundle>;

class Bundle {
 public:
  // The bundle at path (a folder or a file); nullptr when path does not exist.
  static BundleRef open(const std::string& path);
  // For a file at "<bundle>/Contents/MacOS/<name>", the bundle around it; nullptr otherwise.
  static BundleRef openWithExecutableIfLooksLikeBundle(const std::string& executablePath);

  const std::string& path() const { return path_; }
  // True for a bare file: no information dictionary, no resources.
  bool isBareFile() const { return bareFile_; }

  // Never null: an empty immutable dictionary when the bundle has none.
  const plist::DictionaryRef& infoDictionary() const { return info_; }
  // The info dictionary's string for key, or nullopt.
  std::optional<std::string> infoString(std::string_view key) const;
  std::optional<std::string> bundleIdentifier() const { return infoString("CFBundleIdentifier"); }
  // "CFBundleDevelopmentRegion", else "English" when the bundle has that localization, else "".
  std::string developmentRegion() const;

  // The InfoPlist.strings table of the first of the preferred localizations that has one (for
  // languages, or the process's languages when the list is empty), as a dictionary of strings;
  // nullptr when there is none.
  plist::DictionaryRef localizedInfoDictionary(
      const std::vector<std::string>& languages = {}) const;

  // The executable: "CFBundleExecutable", else the bundle's name without extension, when that
  // file exists; the file itself for a bare file; "" when there is none.
  std::string executablePath() const;

  // Folder holding the resources and the *.lproj folders; "" for a bare file.
  const std::string& resourcesPath() const { return resources_; }
  // The names of the *.lproj folders, sorted.
  std::vector<std::string> localizations() const;
  // The bundle's localizations best suited to languages (see preferredLocalizations below).
  std::vector<std::string> preferredLocalizations(const std::vector<std::string>& languages) const;

  // "<name>.<type>" (just name when type is empty): first among the unlocalized resources, then in
  // the preferred localizations for languages (the process's when empty), then the development
  // region. "" when absent.
  std::string pathForResource(std::string_view name, std::string_view type,
                              const std::vector<std::string>& languages = {}) const;
  // Only in "<localization>.lproj".
  std::string pathForResourceInLocalization(std::string_view name, std::string_view type,
                                            std::string_view localization) const;

  // The value of key in table ("Localizable" when empty) for the preferred localization; value
  // (or key itself when value is empty) when the table or key is missing.
  std::string localizedString(std::string_view key, std::string_view value, std::string_view table,
                              const std::vector<std::string>& languages = {}) const;

 private:
  Bundle() = default;

  std::string path_;
  std::string contents_;   // folder holding Info.plist and the executable folder
  std::string resources_;  // folder holding resources and *.lproj
  bool bareFile_ = false;
  bool contentsLayout_ = false;
  plist::DictionaryRef info_;
};

// The information dictionary of the bundle at path, or nullptr when it has none.
plist::DictionaryRef copyInfoDictionaryForPath(const std::string& path);

// Chooses among available localizations for a language list: for the first language that any
// of them matches, the matching localizations, best first. A language matches a localization with
// the same name (case, "-" and "_" ignored, legacy names such as "English" equal to "en"), and a
// localization of its base language ("de-CH" matches "de"). When no language matches, the
// development region if it is available, else nothing.
std::vector<std::string> preferredLocalizations(const std::vector<std::string>& available,
                                                const std::vector<std::string>& languages,
                                                std::string_view developmentRegion = "");

// The process's languages: $LANGUAGE (colon-separated), else $LC_ALL, $LC_MESSAGES, $LANG, with
// encodings and modifiers removed ("de_DE.UTF-8" -> "de_DE"); "C" and "POSIX" are skipped.
std::vector<std::string> processLanguages();

}  // namespace gw::bundle
