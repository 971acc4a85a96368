// Remote-connection requests and a managed user's recorded events, as settings editors ask the
// daemon for them.
//
// The kGWRemoteConnection constants are the vocabulary of request dictionaries exchanged by the
// programs that manage users remotely: an "action" entry names one of the actions (whose values are
// the constants' own names), the other keys carry its arguments. The library only supplies the
// strings.
//
// GWUserEventsManager is the client of the daemon's event store: initWithUserName asks the daemon
// ("com.morvane.gatewise") to set up a proxy of the store for one user, executeFetchRequest runs a
// GWFetchRequest (gatewise/fetch_request.h) through it and returns the events, and the destructor
// releases the proxy. Every message carries the 32-byte external form of the caller's
// authorization. Failures are logged and answered with nullptr; no error code reaches the caller.
// A manager is used by one thread at a time.
//
// The external form of an authorization on this system binds it to the process that made it:
// "GWAX", a version (1), the process id, the effective uid, the process's start time (clock ticks
// since boot, /proc/<pid>/stat field 22) and eight zero bytes, all little-endian. The daemon
// accepts it only from the process it names (the socket's SO_PEERCRED pid and uid, and that pid's
// start time now), so copied bytes are worth nothing in another process, and bytes a process makes
// for itself grant nothing by themselves: what a caller may read is decided from its credentials
// (root and administrators: any user; a managed user: their own events when the host setting
// "eventsVisibleToUser" allows). GWProcessAuthorization asks the authorization provider
// (gatewise/auth.h) for the right "com.morvane.gatewise.events.read" before it makes a form, so an
// editor shows the administrator dialog where polkit asks for one.
#pragma once

#include <gatewise/export.h>
#include <gatewise/fetch_request.h>
#include <gatewise/plist.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// Action names.
GW_EXTERN_C const char kGWRemoteConnectionReadSettingsAction[];
GW_EXTERN_C const char kGWRemoteConnectionGetMiscSettingsAction[];
GW_EXTERN_C const char kGWRemoteConnectionGetAppListAction[];
GW_EXTERN_C const char kGWRemoteConnectionUpdateAppWhiteList[];
GW_EXTERN_C const char kGWRemoteConnectionCreateMOCProxy[];
GW_EXTERN_C const char kGWRemoteConnectionDisposeMOCProxy[];
GW_EXTERN_C const char kGWRemoteConnectionExecuteQuery[];
GW_EXTERN_C const char kGWRemoteConnectionSetPrintAdmin[];
// Keys.
GW_EXTERN_C const char kGWRemoteConnectionUserNameKey[];
GW_EXTERN_C const char kGWRemoteConnectionActionKey[];
GW_EXTERN_C const char kGWRemoteConnectionMessageIDKey[];
GW_EXTERN_C const char kGWRemoteConnectionNameKey[];
GW_EXTERN_C const char kGWRemoteConnectionPasswordKey[];
GW_EXTERN_C const char kGWRemoteConnectionBundleIDsKey[];
GW_EXTERN_C const char kGWRemoteConnectionAppListKey[];
GW_EXTERN_C const char kGWRemoteConnectionUIDKey[];
GW_EXTERN_C const char kGWRemoteConnectionEntityNameKey[];
GW_EXTERN_C const char kGWRemoteConnectionQueryResultKey[];
GW_EXTERN_C const char kGWRemoteConnectionQueryDataKey[];
GW_EXTERN_C const char kGWRemoteConnectionErrorStringKey[];
GW_EXTERN_C const char kGWRemoteConnectionIsPrintAdminFlag[];

namespace gw {

// The right an events client asks for before it makes its authorization's external form.
inline constexpr std::string_view kGWEventsReadRight = "com.morvane.gatewise.events.read";

// The daemon's return codes of _GWMIGExecuteRequestForUser.
inline constexpr std::int32_t kGWEventsBadRequest = -50;  // not a fetch request, bad predicate...
inline constexpr std::int32_t kGWEventsNotAllowed = -60005;  // credentials or authorization
inline constexpr std::int32_t kGWEventsNoProxy = -2;         // no proxy for this caller and user
inline constexpr std::int32_t kGWEventsFailed = -1;          // the store failed or took too long

using GWAuthorizationExternalForm = std::array<std::uint8_t, 32>;

// Anything that yields an authorization reference: its external form, or a non-zero status.
class GW_EXPORT GWAuthorization {
 public:
  virtual ~GWAuthorization();
  virtual std::int32_t makeExternalForm(GWAuthorizationExternalForm* form) const = 0;
};
using GWAuthorizationRef = std::shared_ptr<GWAuthorization>;

// The calling process's authorization, after the provider granted kGWEventsReadRight (with
// interaction when interactive). nullptr with *status when the provider refused.
GW_EXPORT GWAuthorizationRef GWProcessAuthorization(bool interactive, std::int32_t* status);
// The calling process's authorization without asking the provider (the daemon decides anyway).
GW_EXPORT GWAuthorizationRef GWProcessAuthorizationWithoutAsking();

class GWUserEventsManager;
using GWUserEventsManagerRef = std::shared_ptr<GWUserEventsManager>;

class GW_EXPORT GWUserEventsManager {
 public:
  // userName: the managed user, or nullopt for the calling process's user. nullptr on any
  // failure (logged); a failed manager leaves no proxy behind in the daemon.
  static GWUserEventsManagerRef initWithUserName(std::optional<std::string> userName,
                                                 const GWAuthorizationRef& authorization);
  ~GWUserEventsManager();  // releases the daemon's proxy when it was registered
  GWUserEventsManager(const GWUserEventsManager&) = delete;
  GWUserEventsManager& operator=(const GWUserEventsManager&) = delete;

  // The events the daemon answers (an array of GWEvent objects), or a null Value (logged).
  plist::Value executeFetchRequest(const GWFetchRequestRef& request, const std::string& entityName);

  const std::string& userName() const { return _userName; }
  bool registeredWithServer() const { return _registeredWithServer; }

 private:
  GWUserEventsManager() = default;
  std::string _userName;
  std::vector<std::uint8_t> _authData;
  bool _registeredWithServer = false;
};

}  // namespace gw

namespace GWUtilities {

// Starts the managed-client agent to refresh uid's managed preferences, without waiting for it:
// "<root>/usr/libexec/gatewise/regentry" with the two arguments "-u <uid>" (one argument) and "-f".
// The agent rereads the user's forced preferences and asks the daemon to reread the user's
// settings. Nothing happens when no agent is installed there; a failed start is logged.
GW_EXPORT void kickQRMDForUID(uid_t uid);

}  // namespace GWUtilities
