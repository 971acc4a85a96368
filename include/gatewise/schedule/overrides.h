// Daily overrides: extra time an administrator grants a managed user for today.
//
// Grants live in "<user folder>/com.morvane.gatewise.overrides.plist" (the folder of
// GWFolderForUserName), a dictionary: limit key (a limit item's uniqueID, "__COMPUTER__" for the
// whole computer) -> day key ("%Y-%m-%d" of the local calendar date, TZ) -> array of entries
// {"duration": seconds, -1 = unlimited for the rest of the day; "expired": boolean}, oldest first.
// A grant keeps only today's day of its limit. The file is written atomically (a failed write
// leaves the old one) and read without following a link at the file itself.
//
// No lock is taken: the read-modify-write is not guarded against a second writer, as the daemon
// and the login program never write at once. Nothing throws; failures are logged. After a grant
// the caller asks the daemon to reread the file (GWUtilities::fcdReadOverridesFor).
#pragma once

#include <gatewise/export.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace gw {

// The limit key of the whole computer.
inline constexpr std::string_view kGWComputerLimitKey = "__COMPUTER__";

// Appends one entry of `seconds` to today's grants of limitKey, creating the user's folder (owner
// root, group "admin", mode 0755) when missing. Does nothing for a nullopt limitKey.
GW_EXPORT void GWExtendSecondsForToday(std::string_view userName,
                                       std::optional<std::string_view> limitKey,
                                       std::int32_t seconds);
// The sum of today's grants of limitKey (expired ones only with includeExpired), -1 as soon as
// one is unlimited, 0 when there are none or the file cannot be read.
GW_EXPORT std::int32_t GWExtendedSecondsForToday(std::string_view userName,
                                                 std::optional<std::string_view> limitKey,
                                                 bool includeExpired);
// Marks every one of today's grants of limitKey expired; writes nothing when there are none.
GW_EXPORT void GWExpireAllOverridesForToday(std::string_view userName,
                                            std::optional<std::string_view> limitKey);

}  // namespace gw
