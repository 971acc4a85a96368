// Today's extra computer time, as an administrator granted it in the user's overrides file.
//
// The file "<user's daemon folder>/com.morvane.gatewise.overrides.plist" maps a limit key
// ("__COMPUTER__" for the computer) to days ("%Y-%m-%d") to entries {"duration", "expired"}. The
// grant of a day is the sum of its entries that have not expired; a duration of -1 makes the rest
// of that day unlimited. The file is read again only when it changed (or when told to forget it,
// on _GWMIGReadOverrides); malformed parts read as no grant, never as an error.
#pragma once

#include <gatewise/plist.h>

#include <cstdint>
#include <map>
#include <string>

#include "daemon/limits/guarded_file.h"

namespace gw::daemon {

inline constexpr const char* kOverridesFileName = "com.morvane.gatewise.overrides.plist";
inline constexpr const char* kComputerLimitKey = "__COMPUTER__";

struct Grant {
  std::int64_t seconds = 0;
  bool unlimited = false;
};

// The computer grant of dayKey in an overrides file's top-level value.
Grant computerGrantOn(const plist::Value& overrides, const std::string& dayKey);

class OverridesCache {
 public:
  Grant grantFor(const std::string& userName, const std::string& dayKey);
  void forget(const std::string& userName) { entries_.erase(userName); }

 private:
  struct Entry {
    FileStamp stamp;
    plist::Value value;
  };
  std::map<std::string, Entry> entries_;
};

}  // namespace gw::daemon
