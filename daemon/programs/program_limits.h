// A managed user's limits on single programs and groups of programs, as the daemon enforces them.
//
// They are the enabled items of type "com.morvane.gatewise.timelimits.program" and
// "com.morvane.gatewise.timelimits.group" in the "limits-list" of the user's time-limits preference
// (the file the computer limit comes from). Each item's curfews and allowances are read by the
// computer limit's strict reader (parseComputerLimit), so a program item is held to exactly the
// same rules; an item it refuses is skipped with a logged reason, the others stay in force. The
// programs an item covers are the application records of its "appList" (nested "subApps"
// included), plus, for a program item, its own "path" and "bundleID". A later item with the same
// identifier replaces an earlier one.
//
// A running program belongs to an item when its executable matches one of the records by path,
// by the bundle folder it lies in, or by that bundle's identifier (the launch decision's rule).
// Loop thread only.
#pragma once

#include <gatewise/plist.h>

#include <map>
#include <string>
#include <vector>

#include "daemon/apps/app_access.h"
#include "daemon/apps/program_bundle.h"
#include "daemon/limits/computer_limit.h"
#include "daemon/limits/guarded_file.h"

namespace gw::daemon {

struct ProgramLimit {
  std::string id;        // the item's bundleID or groupID (path when a program item has none)
  std::string itemKind;  // the item's "itemType"
  ComputerLimit limit;   // its curfews and allowances; name: the item's name
  std::vector<AppEntry> programs;
};

struct ParsedProgramLimits {
  std::vector<ProgramLimit> limits;
  std::vector<std::string> problems;  // one line per item that was refused
};

// The program and group limits in force in a time-limits preference (the file's top-level value).
ParsedProgramLimits parseProgramLimits(const plist::Value& preference);

// Whether the program at path (with its bundle, programBundleOf(path)) is one of entries.
bool programMatches(const std::vector<AppEntry>& entries, const std::string& path,
                    const ProgramBundle& bundle);

// Reads and parses a user's preference, again only when the file changed.
class ProgramLimitCache {
 public:
  // Empty when the user has no program or group limit in force.
  const std::vector<ProgramLimit>& limitsFor(const std::string& userName);
  void forget(const std::string& userName) { entries_.erase(userName); }

 private:
  struct Entry {
    FileStamp stamp;
    std::vector<ProgramLimit> limits;
  };
  std::map<std::string, Entry> entries_;
};

}  // namespace gw::daemon
