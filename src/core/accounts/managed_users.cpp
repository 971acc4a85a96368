// The local users with managed settings, and a user's preferred localization of the library.
#include <gatewise/core.h>
#include <gatewise/log.h>

#include "platform/bundle/bundle.h"
#include "platform/bundle/library_resources.h"
#include "platform/directory/records.h"
#include "platform/fs/root.h"
#include "platform/prefs/user_languages.h"

namespace {

// A user is managed exactly when its settings attribute starts with this declaration.
constexpr const char* kManagedSettingsDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

// The record's first value of attribute, as a single string. Setting a missing value is the
// failure the record loop reports and survives.
void replaceWithFirstValue(gw::plist::Dictionary& user, const char* attribute) {
  const gw::plist::Value* values = user.find(attribute);
  if (!values || !values->isArray() || values->array()->empty()) {
    throw gw::GWException(
        "NSInvalidArgumentException",
        std::string("*** setObjectForKey: object cannot be nil (key: ") + attribute + ")");
  }
  user.set(attribute, (*values->array())[0]);
}

}  // namespace

gw::plist::ArrayRef GWGetLocalManagedUsers() {
  GW_LOG(2, "Enter");
  auto users = gw::plist::Array::make();
  users->mutableItems().reserve(16);
  gw::directory::RecordQuery query;
  query.recordType = gw::directory::kRecordTypeUsers;
  query.attribute = gw::directory::kAttributeManagedSettings;
  query.matchType = gw::directory::kMatchBeginsWithCaseInsensitive;
  query.values = {kManagedSettingsDeclaration};
  query.returnAttributes = {gw::directory::kAttributeRealName, gw::directory::kAttributeRecordName};
  auto records = gw::directory::queryRecords(query);
  if (!records) {
    GW_LOG(0, "[DXQuery queryWithNode:] returned nil");
  } else {
    for (const gw::plist::DictionaryRef& record : *records) {
      gw::plist::DictionaryRef user;
      try {
        user = gw::plist::mutableCopy(gw::plist::Value(record)).dictionary();
        replaceWithFirstValue(*user, gw::directory::kAttributeRecordName);
        replaceWithFirstValue(*user, gw::directory::kAttributeRealName);
      } catch (const std::exception& e) {
        GW_LOG(0, "Caught exception: %@", e);
      }
      if (user) users->append(user);
    }
  }
  GW_LOG(2, "Exit");
  return users;
}

std::optional<std::string> GWPreferredLanguageForUserName(std::string_view userName) {
  return gw::returningOnException(
      __func__, __LINE__, std::optional<std::string>(), [&]() -> std::optional<std::string> {
        if (!gw::fs::isSafeName(userName)) return std::nullopt;
        std::vector<std::string> languages = gw::prefs::copyUserLanguages(userName);
        if (languages.empty()) return std::nullopt;
        gw::bundle::BundleRef library =
            gw::bundle::Bundle::open(gw::bundle::libraryResourceFolder());
        if (!library) return std::nullopt;
        std::vector<std::string> localizations = library->localizations();
        if (localizations.empty()) return std::nullopt;
        std::vector<std::string> preferred = gw::bundle::preferredLocalizations(
            localizations, languages, library->developmentRegion());
        if (preferred.empty()) return std::nullopt;
        return preferred.front();
      });
}
