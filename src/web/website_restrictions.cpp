// The browser's question: is this user limited to a website white list, and which sites.
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <gatewise/web.h>
#include <unistd.h>

namespace {

constexpr const char kRestrictWebKey[] = "restrictWeb";
constexpr const char kUseContentFilterKey[] = "useContentFilter";
constexpr const char kSiteWhitelistKey[] = "siteWhitelist";

std::optional<std::string> userNameOrCurrent(std::optional<std::string_view> userName) {
  if (userName) return std::string(*userName);
  return GetUserShortNameForUID(::getuid());
}

// The user's content-filter preference; an empty dictionary when it cannot be read.
gw::plist::DictionaryRef contentFilterPreference(const std::optional<std::string>& userName) {
  std::optional<std::string> path =
      userName ? GWManagedPreferencesFileForUser(*userName, kGWContentFilterDomain) : std::nullopt;
  if (path) {
    gw::plist::ReadResult read = gw::plist::readPropertyListFile(*path);
    if (read && read.value->isDictionary()) return read.value->dictionary();
  }
  return gw::plist::Dictionary::make();
}

// The element count of a collection ("siteWhitelist" may be an array or a bookmark folder node).
std::size_t elementCount(const gw::plist::Value& value) {
  if (const gw::plist::Array* array = value.ifArray()) return array->size();
  if (const gw::plist::Dictionary* dictionary = value.ifDictionary()) return dictionary->size();
  return 0;
}

bool booleanKey(const gw::plist::Dictionary& preference, std::string_view key) {
  const gw::plist::Value* value = preference.find(key);
  return value && value->boolValue();
}

}  // namespace

bool GWLumewayHasWebSiteRestrictions(std::optional<std::string_view> userName) {
  return gw::returningOnException(__func__, __LINE__, false, [&] {
    GW_LOG(2, "user: %@", userName ? gw::plist::Value(*userName) : gw::plist::Value());
    gw::plist::DictionaryRef preference = contentFilterPreference(userNameOrCurrent(userName));
    bool restricted = booleanKey(*preference, kRestrictWebKey) &&
                      elementCount(preference->get(kSiteWhitelistKey)) != 0 &&
                      !booleanKey(*preference, kUseContentFilterKey);
    GW_LOG(2, restricted ? "returning YES" : "returning NO");
    return restricted;
  });
}

gw::plist::Value GWLumewayGetWhiteListForUser(std::optional<std::string_view> userName) {
  return gw::returningOnException(__func__, __LINE__, gw::plist::Value(), [&] {
    if (!GWLumewayHasWebSiteRestrictions(userName)) return gw::plist::Value();
    std::optional<std::string> name = userNameOrCurrent(userName);
    gw::plist::DictionaryRef preference = contentFilterPreference(name);
    GW_LOG(2, "user: %@", name ? gw::plist::Value(*name) : gw::plist::Value());
    return preference->get(kSiteWhitelistKey);
  });
}

void GWLumewayAddToWhiteList(const gw::plist::Value&, std::optional<std::string_view>) {
  GW_LOG(0, "*** No longer supported. Use GWLumewayWriteBookmarks instead.");
}

void GWLumewayRemoveFromWhiteList(const gw::plist::Value&, std::optional<std::string_view>) {
  GW_LOG(0, "*** No longer supported.");
}
