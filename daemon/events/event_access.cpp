#include "daemon/events/event_access.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "daemon/manager.h"
#include "platform/prefs/host_preferences.h"

namespace gw::daemon {
namespace {

std::optional<gid_t> groupNamed(const char* name) {
  group g{};
  group* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getgrnam_r(name, &g, buffer.data(), buffer.size(), &found) != 0 || !found) {
    return std::nullopt;
  }
  return found->gr_gid;
}

}  // namespace

bool isAdministrator(uid_t uid, gid_t gid) {
  if (uid == 0 || gid == 0) return true;
  passwd pw{};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (::getpwuid_r(uid, &pw, buffer.data(), buffer.size(), &found) != 0 || !found) return false;
  int count = 64;
  std::vector<gid_t> groups(64);
  if (::getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0) {
    if (count <= 0 || count > 65536) return false;
    groups.resize(std::size_t(count));
    if (::getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0) return false;
  }
  groups.resize(std::size_t(count));
  for (const char* name : {"admin", "sudo"}) {
    std::optional<gid_t> admin = groupNamed(name);
    if (admin && std::find(groups.begin(), groups.end(), *admin) != groups.end()) return true;
  }
  return false;
}

bool mayReadEvents(uid_t peerUid, gid_t peerGid, uid_t subject, const EventAccessPolicy& policy) {
  if (policy.isAdministrator(peerUid, peerGid)) return true;
  if (peerUid != subject) return false;
  if (policy.eventsVisibleToUser) return *policy.eventsVisibleToUser;
  std::optional<plist::Value> visible = prefs::copyHostValue(kHostDomain, "eventsVisibleToUser");
  return visible && visible->isBoolean() && visible->boolean();
}

}  // namespace gw::daemon
