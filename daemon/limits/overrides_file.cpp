#include "daemon/limits/overrides_file.h"

#include <gatewise/core.h>
#include <gatewise/log.h>

namespace gw::daemon {
namespace {
constexpr std::size_t kMaxOverridesFileSize = 1 << 20;
constexpr std::int64_t kMaxGrantSeconds = 7 * 86400;
}  // namespace

Grant computerGrantOn(const plist::Value& overrides, const std::string& dayKey) {
  Grant grant;
  const plist::Dictionary* limits = overrides.ifDictionary();
  const plist::Dictionary* days = limits ? limits->get(kComputerLimitKey).ifDictionary() : nullptr;
  const plist::Array* entries = days ? days->get(dayKey).ifArray() : nullptr;
  if (!entries) return grant;
  for (const plist::Value& entry : *entries) {
    const plist::Dictionary* d = entry.ifDictionary();
    if (!d) continue;
    const plist::Value& expired = d->get("expired");
    if (expired.isBoolean() && expired.boolean()) continue;
    const plist::Value& duration = d->get("duration");
    if (!duration.isInteger()) continue;
    std::int64_t seconds = duration.integer().isBigUnsigned() ? -2 : duration.integer().int64();
    if (seconds == -1) return {0, true};
    if (seconds < 0) continue;
    grant.seconds = std::min(grant.seconds + std::min(seconds, kMaxGrantSeconds), kMaxGrantSeconds);
  }
  return grant;
}

Grant OverridesCache::grantFor(const std::string& userName, const std::string& dayKey) {
  std::optional<std::string> folder = GWFolderForUserName(userName);
  if (!folder) return {};
  std::string path = *folder + "/" + kOverridesFileName;
  FileStamp stamp = stampOf(path);
  auto it = entries_.find(userName);
  if (it == entries_.end() || !(it->second.stamp == stamp)) {
    Entry entry{stamp, plist::Value()};
    if (!stamp.absent) {
      std::string error;
      std::optional<std::string> bytes = readRegularFile(path, kMaxOverridesFileSize, &error);
      plist::ReadResult read;
      if (bytes) read = plist::readPropertyList(std::string_view(*bytes));
      if (bytes && read) {
        entry.value = *read.value;
      } else {
        GW_LOG(0, "*** Ignoring the overrides of %s: %s", userName.c_str(),
               (bytes ? read.error : error).c_str());
      }
    }
    it = entries_.insert_or_assign(userName, std::move(entry)).first;
  }
  return computerGrantOn(it->second.value, dayKey);
}

}  // namespace gw::daemon
