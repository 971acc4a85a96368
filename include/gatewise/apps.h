// Application records and the discovery of installed programs.
//
// GWApp is an application record as the preference editor and the daemon keep it in a white list.
// A record wraps one dictionary, _dictionary, holding its whole state: "path", "displayName",
// "bundleID" (strings), "appID" (the designated requirement) and "detachedSignature" (data), and
// "subApps" (in memory GWApp objects; in the dictionary form their dictionaries). A missing key
// reads as nil; every setter given nil removes its key. A record made from a path reads the
// program's bundle, finds its nested executables, can sign it, and records its designated
// requirement (see initWithPath). Records are not synchronised: share them only for reading.
//
// Installed programs (GWCopyInstalledApplications) come from this platform's application
// registry: the XDG desktop entries ("applications/*.desktop", subfolders included) of the user's
// data folder ($XDG_DATA_HOME, else ~/.local/share) and then of the system data folders
// ($XDG_DATA_DIRS, else /usr/local/share:/usr/share, below the system root), of type
// "Application", not "Hidden", with an "Exec" whose program is found (absolute, or in $PATH below
// the system root) and followed through symbolic links; then the ".app" bundle folders under
// <root>/Applications. A desktop entry gives the name ("Name", localized "Name[lang]" for the
// process's languages) and the identifier (its desktop file id without ".desktop", such as
// "org.example.Editor"). Records made from such a program read only the file, so their identifier
// is the program's own (GWCopyBundleIDFudgingIfNecessary): a desktop entry, which a user may write,
// never lends a program another identity.
//
// The executable test (nested programs) accepts Mach-O executables and preloaded images, and ELF
// executables (ET_EXEC, or ET_DYN with an interpreter or the PIE flag). Packages are folders
// whose name ends in ".app", ".bundle", ".framework", ".plugin", ".wdgt", ".kext", ".xpc" or
// ".appex", or that hold "Contents/Info.plist".
//
// Everything here may be called from any thread. Nothing throws: failures are logged and give
// nil, false, or an empty list; unreadable folders, broken entries and link loops are skipped.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>
#include <gatewise/signing.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace gw {

class GWApp;
using GWAppRef = std::shared_ptr<GWApp>;

// Errors that records report. Codes in kGWErrorDomain: -1 "Object has no path reference.",
// -2 "Application is no longer located at its stored path.".
inline constexpr char kGWErrorDomain[] = "GWErrorDomain";
struct GWError {
  std::string domain;
  int code = 0;
  std::string localizedFailureReason;
};

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

  // A record of the program at path: its display name ("CFBundleName", localized first, else the
  // last path component), its bundle identifier (substituted when missing), with addingSubApps
  // the records of its nested executables (one flat level, deepest first, each signed detached
  // when signing), with creatingSignature a signature made for it (embedded, or detached when
  // asked for on a read-only program or when embedding would corrupt it), and always the designated
  // requirement of whatever signature it then carries (none when unsigned). Signing failures are
  // logged and the record is still made. nullptr only for an absent or empty path.
  static GWAppRef initWithPath(const std::optional<std::string>& path, bool addingSubApps,
                               bool creatingSignature, bool detached);
  static GWAppRef appWithPath(const std::optional<std::string>& path) {
    return initWithPath(path, false, false, false);
  }
  static GWAppRef appWithPath(const std::optional<std::string>& path, bool addingSubApps) {
    return initWithPath(path, addingSubApps, false, false);
  }
  static GWAppRef appWithPath(const std::optional<std::string>& path, bool addingSubApps,
                              bool creatingSignature, bool detached) {
    return initWithPath(path, addingSubApps, creatingSignature, detached);
  }

  // The keychain records sign with (nil: the user's keychain, else ad hoc). Process-wide.
  static void setKeychainForCodesigning(GWKeychainRef keychain);
  static GWKeychainRef keychainForCodesigning();

  // True when the record has no requirement, and also when it has no path (error -1) or its
  // program has vanished (error -2): only *error tells. Otherwise whether the program still
  // satisfies its requirement with its signature. error may be null.
  bool validateCodeSig(GWError* error) const;

  // A record sharing nothing mutable with this one: copy() holds an immutable dictionary (its
  // setters then change nothing and log), mutableCopy() a mutable one. Sub-app records are shared.
  GWAppRef copy() const;
  GWAppRef mutableCopy() const;

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

// The installed programs, in the registry's order (see above): dictionaries holding only
// "displayName", "bundleID" ("unknown" when missing) and "path". Programs whose path holds
// ".Trash" or lies under /System/ are left out.
GW_EXPORT gw::plist::ArrayRef GWCopyInstalledApplications();

// The executables nested inside the package at path, depth first in name order, each nested
// package's own executable left out (the bundle's own executable too); links are never followed
// or listed. nil when path is not a package or no bundle opens there.
GW_EXPORT std::optional<std::vector<std::string>> GWGetAppPathsAtPath(
    const std::optional<std::string>& path);

// The older walker: every file below the folder at path, links followed at the end, whose name
// has no extension and which is a regular file with an execute bit. nil unless path is a folder.
GW_EXPORT std::optional<std::vector<std::string>> GWGetAppPathsAtPathOLD(
    const std::optional<std::string>& path);

// Appends the executables below folder to results, leaving out excludedPath (see
// GWGetAppPathsAtPath).
GW_EXPORT void ScanFolderForApps(const std::string& folder, std::vector<std::string>& results,
                                 const std::optional<std::string>& excludedPath);

// The name the bundle at path shows to user: "CFBundleDisplayName", else "CFBundleName", of the
// InfoPlist.strings of the bundle's localizations preferred for the user's languages. nil when
// the user has no language setting, the bundle no matching localization or neither key.
GW_EXPORT std::optional<std::string> GWCopyAppDisplayNameForUser(const std::string& user,
                                                                 const std::string& path);

// Whether path is a package.
GW_EXPORT bool IsFilePackageAtPath(const std::string& path);
// "." -> the current folder (as first read by the process), ".." and relative paths against it,
// all but "." standardized (tilde, "." and ".." components).
GW_EXPORT std::string MyStandardizePath(const std::string& path);
// 1 when a has fewer path components than b, -1 when more, else 0: deepest paths first.
GW_EXPORT int ReversePathComponentCountSort(const std::string& a, const std::string& b,
                                            void* context);
