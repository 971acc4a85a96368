// Who may read whose recorded events.
//
// Root and administrators may read any user's events. An administrator is a caller whose group
// (SO_PEERCRED gid) is 0, or whose account is a member of the group "admin" or "sudo" (the groups
// the system's administrator identities come from; getgrouplist over the password and group
// databases). Anyone else may read only their own events, and only while the host preference
// "eventsVisibleToUser" of "com.morvane.Gatewise" is true (default false).
#pragma once

#include <sys/types.h>

namespace gw::daemon {

bool isAdministrator(uid_t uid, gid_t gid);

struct EventAccessPolicy {
  bool (*isAdministrator)(uid_t uid, gid_t gid) = gw::daemon::isAdministrator;
  // nullptr: read from the host preferences at each check.
  const bool* eventsVisibleToUser = nullptr;
};

bool mayReadEvents(uid_t peerUid, gid_t peerGid, uid_t subject, const EventAccessPolicy& policy);

}  // namespace gw::daemon
