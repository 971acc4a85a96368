// GWHasAppLaunchRestrictions: whether a user's managed settings turn the launch white list on.
#include <gatewise/core.h>
#include <gatewise/launch.h>
#include <gatewise/log.h>

#include <mutex>

namespace {

// The managed settings of the user in domain; nil when the file is missing or unreadable.
std::optional<gw::plist::Value> readSettings(const std::string& userName, const char* domain) {
  std::optional<std::string> file = GWManagedPreferencesFileForUser(userName, domain);
  if (!file) return std::nullopt;
  gw::plist::ReadResult read = gw::plist::readPropertyListFile(*file);
  if (!read) return std::nullopt;
  return std::move(read.value);
}

bool restrictionsOf(const std::string& userName) {
  if (std::optional<gw::plist::Value> current =
          readSettings(userName, kGWApplicationAccessDomain)) {
    const gw::plist::Dictionary* settings = current->ifDictionary();
    return settings && settings->get("gatewiseEnabled").boolValue();
  }
  std::optional<gw::plist::Value> older = readSettings(userName, kGWOldApplicationAccessDomain);
  const gw::plist::Dictionary* settings = older ? older->ifDictionary() : nullptr;
  return settings && (settings->contains("ItemsList") || settings->contains("DenyList"));
}

}  // namespace

bool GWHasAppLaunchRestrictions(uid_t uid) {
  return gw::returningOnException(__func__, __LINE__, false, [&] {
    std::lock_guard<gw::SpinLock> hold(gGWALRLock);
    gw::plist::DictionaryRef cached = CachedUserDictionaryForUID(uid);
    // Looked up under "hasALR", stored under "gatewiseEnabled": the stored answer never serves a
    // later call, so each call reads the settings afresh.
    if (const gw::plist::Value* known = cached->find("hasALR")) {
      bool answer = known->boolValue();
      GW_LOG(2, "Returning cached value of %d", int(answer));
      return answer;
    }
    std::optional<std::string> userName;
    if (const std::string* name = cached->get("userName").ifString()) {
      userName = *name;
    } else if ((userName = GetUserShortNameForUID(uid))) {
      cached->set("userName", *userName);
    }
    bool answer = userName && restrictionsOf(*userName);
    GW_LOG(1, "whiteListEnabled: %@", answer ? "Yes" : "No");
    cached->set("gatewiseEnabled", answer);
    if (answer) {
      GW_LOG(2, "returning YES for uid %d", int(uid));
    } else {
      GW_LOG(2, "returning NO for uid %d", int(uid));
    }
    return answer;
  });
}
