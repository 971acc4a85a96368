// Widgets: small ".wdgt" bundles that a white list recognises by their widget identifier.
//
// Widgets cannot be signed like programs, so a widget is known by the 20-byte SHA-1 field of its
// bundle's identity record (IdentityCreateWithPath), computed without the top-level entry named
// "identity": renaming the bundle or rewriting that file keeps the identifier, any other change
// gives a new one. GWWidget wraps one dictionary, _dictionary, with "path", "displayName",
// "bundleID" (strings) and "widgetID" (data); a setter given nil removes its key.
//
// Where widgets are installed on this platform, searched in this order:
//   the local library:  <root>/Library/Widgets
//   the user's library: $XDG_DATA_HOME/gatewise/Widgets (XDG_DATA_HOME defaults to
//                       ~/.local/share; the same data folder as the user's keychain)
// Each folder is walked (links not followed, names in byte order); every entry whose name ends in
// ".wdgt" is one widget, and nothing inside a widget is searched.
//
// Any thread; widgets are not synchronised (share them only for reading). Nothing throws: a widget
// that cannot be described is logged and left out.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace gw {

class GWWidget;
using GWWidgetRef = std::shared_ptr<GWWidget>;

class GW_EXPORT GWWidget : public GWObject {
 public:
  explicit GWWidget(plist::DictionaryRef dictionary) : _dictionary(std::move(dictionary)) {}

  // The widget at path: its bundle identifier (required), its name (the localized
  // "CFBundleDisplayName" of InfoPlist.strings when it has two characters or more, else the
  // information dictionary's "CFBundleDisplayName", else its "CFBundleName"; required) and its
  // identifier (required). nullptr, logged, when any is missing.
  static GWWidgetRef initWithPath(const std::optional<std::string>& path);
  static GWWidgetRef widgetWithPath(const std::optional<std::string>& path) {
    return initWithPath(path);
  }
  // A mutable copy of dictionary; nullptr unless it is a dictionary.
  static GWWidgetRef initWithDictionary(const plist::Value& dictionary);
  static GWWidgetRef widgetWithDictionary(const plist::Value& dictionary) {
    return initWithDictionary(dictionary);
  }
  // Every widget of GWGetAllWidgetPaths that can be described, ordered by compare.
  static std::vector<GWWidgetRef> installedWidgets();

  // The live dictionary itself.
  const plist::DictionaryRef& plistRepresentation() const { return _dictionary; }

  std::optional<std::string> path() const { return string("path"); }
  void setPath(std::optional<std::string> v) { setString("path", std::move(v)); }
  std::optional<std::string> displayName() const { return string("displayName"); }
  void setDisplayName(std::optional<std::string> v) { setString("displayName", std::move(v)); }
  std::optional<std::string> bundleID() const { return string("bundleID"); }
  void setBundleID(std::optional<std::string> v) { setString("bundleID", std::move(v)); }
  std::optional<plist::Data> widgetID() const;
  void setWidgetID(std::optional<plist::Data> v) { setData("widgetID", std::move(v)); }

  // The path.
  std::string description() const override;
  // Orders by display name (plain byte comparison): <0, 0, >0.
  int compare(const GWWidget& other) const;
  // copy(): an immutable dictionary (setters then change nothing and log); mutableCopy(): a
  // mutable one.
  GWWidgetRef copy() const;
  GWWidgetRef mutableCopy() const;

 private:
  std::optional<std::string> string(const char* key) const;
  void setString(const char* key, std::optional<std::string> value);
  void setData(const char* key, std::optional<plist::Data> value);

  plist::DictionaryRef _dictionary;
};

}  // namespace gw

// The widget bundles installed (see above): the local ones, then the user's.
GW_EXPORT std::vector<std::string> GWGetAllWidgetPaths();

// The 20-byte widget identifier of the bundle at path; nil when its identity record cannot be made.
GW_EXPORT std::optional<gw::plist::Data> GWGetWidgetIDForPath(
    const std::optional<std::string>& path);
