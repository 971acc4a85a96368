// A managed user's application-access settings, as the daemon decides launches from them.
//
// The current form ("com.morvane.applicationaccess.new") turns the white list on with the boolean
// "gatewiseEnabled"; its "whiteList" holds application records (dictionaries with "path",
// "bundleID", "appID", "detachedSignature" and nested records under "subApps"). The older form
// ("com.morvane.applicationaccess") is read only when the current file is missing or unreadable:
// its "ItemsList" (records, or plain paths) is then the white list, and with only a "DenyList" the
// listed programs are refused and everything else is allowed.
//
// parseAppAccess never throws: elements of the wrong type are skipped with a log line, nesting is
// bounded. AppAccessCache reads each user's files as root without following links, bounded in
// size, and again only when a file's stamp changed. Loop thread only.
#pragma once

#include <gatewise/plist.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "daemon/limits/guarded_file.h"

namespace gw::daemon {

inline constexpr std::size_t kMaxAppAccessFileSize = 4 << 20;
// Records nested deeper than this are ignored.
inline constexpr int kMaxNestedRecords = 8;

// One application record of a white list (or deny list), nested records flattened after it.
struct AppEntry {
  std::string path;                              // "" when the record has none
  std::string bundleID;                          // "" when the record has none
  std::optional<plist::Data> requirement;        // "appID"
  std::optional<plist::Data> detachedSignature;  // "detachedSignature"
  bool nested = false;                           // came from a record's "subApps"
};

struct AppAccess {
  enum class Mode {
    Unrestricted,  // no white list in force
    WhiteList,     // only `entries` may start
    DenyList,      // everything but `denied` may start (older form without "ItemsList")
    Unreadable,    // the settings exist but cannot be read: the gate fails open
  };
  Mode mode = Mode::Unrestricted;
  std::vector<AppEntry> entries;
  std::vector<AppEntry> denied;
  std::uint64_t generation = 0;  // changes whenever the settings were read again
};

// The access of one form's top-level value; isOlderForm selects the older form's keys.
AppAccess parseAppAccess(const plist::Value& settings, bool isOlderForm);

class AppAccessCache {
 public:
  // The user's access as the files say now. userName must be a safe name. With recentEnough, an
  // answer whose files were checked less than kRecheckMicroseconds ago is given without looking at
  // them again (the exec path, where two lstat calls per exec are most of the work).
  const AppAccess& accessFor(const std::string& userName, bool recentEnough = false);
  void forget(const std::string& userName) { entries_.erase(userName); }

 private:
  static constexpr std::uint64_t kRecheckMicroseconds = 1'000'000;
  struct Entry {
    std::uint64_t checkedAt = 0;  // monotonic microseconds
    FileStamp current, older;
    AppAccess access;
  };
  std::map<std::string, Entry> entries_;
  std::uint64_t nextGeneration_ = 1;
};

}  // namespace gw::daemon
