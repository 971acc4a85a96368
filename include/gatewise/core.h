// Accounts and managed-preference paths: the small shared services every other part leans on.
//
// User ids and short names (password database), the fixed locations of managed preferences and of
// the daemon's per-user data (always below the system root, see GATEWISE_ROOT), the local users
// that have managed settings (directory records), the managed domains in force for a user, whether
// a set of domains needs the daemon, a user's preferred localization of the library, login
// sessions, the per-user cache of the launch checks, unique identifiers, and the GWExtras helpers.
//
// Every function reads the system afresh and may be called from any thread, except the per-user
// cache: CachedUserDictionaryForUID must be called with gGWALRLock held. User names given by
// callers that hold "/" or are "." or ".." are refused (nil, empty or NO) and never joined into a
// path. Nothing here throws; failures are logged and give the documented empty result. Returned
// containers are new and owned by the caller, except the cache entries, which the cache owns.
#pragma once

#include <gatewise/export.h>
#include <gatewise/plist.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace gw {

// A spin lock that knows which thread holds it, so that code reached both with and without the
// lock held (the cache's change callback) can tell which case it is in. Not recursive.
class GW_EXPORT SpinLock {
 public:
  void lock();
  bool try_lock();
  void unlock();
  bool heldByCurrentThread() const;

 private:
  std::atomic<bool> locked_{false};
  std::atomic<std::thread::id> owner_{};
};

}  // namespace gw

// Serialises launch-restriction look-ups, daemon exchanges about launches and detached
// signatures, and the dropping of the per-user cache.
GW_EXTERN_C gw::SpinLock gGWALRLock;

// "/Library/Application Support/Morvane/Tutela/.listening", to be resolved with the system root
// (GWRootedPath). Its appearance or removal is announced to the daemon.
GW_EXTERN_C const char kGWListeningFilePath[];

// The notification that managed settings changed; it drops the per-user cache.
GW_EXTERN_C const char kGWManagementStatusChangedNotification[];

// The domains whose settings need the daemon, in order.
GW_EXPORT const std::vector<std::string>& GWDaemonPreferenceDomains();

// An absolute path of the system's layout below the system root.
GW_EXPORT std::string GWRootedPath(std::string_view absolutePath);

// "<root>/Library/Managed Preferences".
GW_EXPORT std::string GWManagedPreferencesFolder();
// "<root>/Library/Managed Preferences/<user>"; nil for a refused name.
GW_EXPORT std::optional<std::string> GWManagedPreferencesFolderForUser(std::string_view userName);
// "<root>/Library/Managed Preferences/<user>/<domain>.plist"; nil for a refused user or domain.
GW_EXPORT std::optional<std::string> GWManagedPreferencesFileForUser(std::string_view userName,
                                                                     std::string_view domain);

// The password database's name for uid; nil when there is none or it is not valid UTF-8.
GW_EXPORT std::optional<std::string> GetUserShortNameForUID(uid_t uid);
// The uid of name; 0xFFFFFFFF when name is unknown, not valid UTF-8 or holds a NUL.
GW_EXPORT std::uint32_t UIDForShortName(std::string_view name);
// The standardised "<root>/Library/Application Support/Morvane/Tutela/Users/<name>"; nil for a nil
// or refused name.
GW_EXPORT std::optional<std::string> GWFolderForUserName(std::optional<std::string_view> name);
// Whether uid has a login session.
GW_EXPORT bool UserIsLoggedIn(uid_t uid);

// The cache entry for uid (a mutable dictionary the cache owns), created empty on first use. Call
// with gGWALRLock held. The first call registers QRMSettingsChangedCallback for
// kGWManagementStatusChangedNotification; each call first delivers notifications that arrived.
GW_EXPORT gw::plist::DictionaryRef CachedUserDictionaryForUID(uid_t uid);
// Drops the whole per-user cache under gGWALRLock (or directly when this thread holds it).
GW_EXPORT void QRMSettingsChangedCallback();

// One dictionary per local user with managed settings: the record's attributes, "name" and
// "dsAttrTypeStandard:RealName" as single strings. Never nil; may be empty.
GW_EXPORT gw::plist::ArrayRef GWGetLocalManagedUsers();
// The library's localization best suited to the user's languages; nil when there is none.
GW_EXPORT std::optional<std::string> GWPreferredLanguageForUserName(std::string_view userName);
// The managed domains in force for the user; nil for an empty or refused name, empty when the
// user has no managed preference folder.
GW_EXPORT gw::plist::ArrayRef GWManagedDomainsForUser(std::string_view userName);
// YES as soon as one element of domains equals one of GWDaemonPreferenceDomains().
GW_EXPORT bool GWPrefDomainsRequireDaemon(const gw::plist::ArrayRef& domains);

// A new random UUID, "XXXXXXXX-XXXX-4XXX-YXXX-XXXXXXXXXXXX" in upper-case hexadecimal.
GW_EXPORT std::string UUIDString();

// GWExtras. url is a "file://" URL (percent-escapes decoded) or a plain path.
// The bundle identifier of the bundle at url, or nil.
GW_EXPORT std::optional<std::string> GWURLBundleID(std::string_view url);
// The bundle's "CFBundleName", else the last path component without its extension.
GW_EXPORT std::string GWURLBundleName(std::string_view url);
// The integer value of every element that is zero or more (an index set holds no negatives).
GW_EXPORT std::set<std::uint64_t> GWIndexSetWithArray(const gw::plist::ArrayRef& array);
// One number per index, ascending.
GW_EXPORT gw::plist::ArrayRef GWIndexSetAllObjects(const std::set<std::uint64_t>& indexes);
