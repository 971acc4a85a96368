// GWApp: an application record as the preference editor and the daemon keep it in a white list.
//
// A record wraps one mutable dictionary, _dictionary, holding its whole state: "path",
// "displayName", "bundleID" (strings), "appID" (the designated requirement) and
// "detachedSignature" (data), and "subApps" (in memory GWApp objects; in the dictionary form their
// dictionaries). A missing key reads as nil; every setter given nil removes its key. Records are
// not synchronised: share them only for reading. Nothing here throws.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>

#include <memory>
#include <optional>
#include <string>

namespace gw {

class GWApp;
using GWAppRef = std::shared_ptr<GWApp>;

class GW_EXPORT GWApp : public GWObject {
 public:
  explicit GWApp(plist::DictionaryRef dictionary) : _dictionary(std::move(dictionary)) {}

  // A mutable copy of dictionary; a non-empty "subApps" array becomes records (elements that give
  // none are skipped, and the key is left out when none remain). nullptr unless dictionary is a
  // dictionary.
  static GWAppRef initWithDictionary(const plist::Value& dictionary);
  static GWAppRef appWithDictionary(const plist::Value& dictionary) {
    return initWithDictionary(dictionary);
  }

  // The dictionary form. Without sub-apps it is the live dictionary itself; with them, a copy in
  // which "subApps" holds their dictionary forms.
  plist::DictionaryRef plistRepresentation() const;
  const plist::DictionaryRef& dictionary() const { return _dictionary; }

  std::optional<std::string> path() const { return string("path"); }
  void setPath(std::optional<std::string> v) { setString("path", std::move(v)); }
  std::optional<std::string> displayName() const { return string("displayName"); }
  void setDisplayName(std::optional<std::string> v) { setString("displayName", std::move(v)); }
  std::optional<std::string> bundleID() const { return string("bundleID"); }
  void setBundleID(std::optional<std::string> v) { setString("bundleID", std::move(v)); }
  // nullopt when absent.
  std::optional<plist::Data> appID() const { return data("appID"); }
  void setAppID(std::optional<plist::Data> v) { setData("appID", std::move(v)); }
  std::optional<plist::Data> detachedSignature() const { return data("detachedSignature"); }
  void setDetachedSignature(std::optional<plist::Data> v) {
    setData("detachedSignature", std::move(v));
  }
  // Elements: object Values holding GWApp. nullptr when absent.
  plist::ArrayRef subApps() const;
  void setSubApps(plist::ArrayRef subApps);

  // "<GWApp: 0x...>:\tpath: <path>\tbundleID: <bundleID>".
  std::string description() const override;
  // Orders by display name (plain byte comparison): <0, 0, >0.
  int compare(const GWApp& other) const;

 private:
  std::optional<std::string> string(const char* key) const;
  void setString(const char* key, std::optional<std::string> value);
  std::optional<plist::Data> data(const char* key) const;
  void setData(const char* key, std::optional<plist::Data> value);

  plist::DictionaryRef _dictionary;
};

}  // namespace gw
