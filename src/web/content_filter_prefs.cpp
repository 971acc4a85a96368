// CopyContentFilterPlistValueForKey: one key of the content filter user's preference file.
#include <gatewise/core.h>
#include <gatewise/web.h>

#include "platform/plist/file_bytes.h"
#include "web/content_filter.h"

namespace {

// A content-filter preference holds two lists of URL prefixes; anything larger is not one.
constexpr std::size_t kMaxPreferenceFileSize = std::size_t(16) << 20;

}  // namespace

gw::plist::Value CopyContentFilterPlistValueForKey(std::string_view key) {
  using gw::web::writeFilterMessage;
  const std::string* user = gUserName.ifString();
  std::optional<std::string> path =
      user ? GWManagedPreferencesFileForUser(*user, kGWContentFilterDomain) : std::nullopt;
  if (!path) {
    writeFilterMessage("CopyContentFilterPlistValueForKey: plistPath was NULL\n");
    return {};
  }
  gw::plist::FileBytes file;
  std::string openError;
  if (!gw::plist::readFileBytes(*path, kMaxPreferenceFileSize, file, openError)) {
    writeFilterMessage("CopyContentFilterPlistValueForKey: couldn't open plist stream\n");
    return {};
  }
  gw::plist::ReadResult read =
      gw::plist::readPropertyList(std::span<const std::uint8_t>(file.bytes.get(), file.size));
  const gw::plist::Dictionary* prefs = read ? read.value->ifDictionary() : nullptr;
  if (!read) {
    writeFilterMessage("CopyContentFilterPlistValueForKey: contentFilterPrefs was NULL\n");
    if (!read.error.empty()) {
      writeFilterMessage("CFPropertyListCreateFromXMLData said:\n" + read.error + "\n");
    }
    return {};
  }
  const gw::plist::Value* value = prefs ? prefs->find(key) : nullptr;
  if (!value) {
    writeFilterMessage("CopyContentFilterPlistValueForKey: value was NULL\n");
    return {};
  }
  return *value;
}
