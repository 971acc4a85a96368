#include "platform/prefs/host_preferences.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/fs/root.h"

namespace gw::prefs {

std::optional<plist::Value> copyHostValue(std::string_view domain, std::string_view key) {
  if (!fs::isSafeName(domain)) return std::nullopt;
  std::string path = fs::rootedPath("/Library/Preferences/" + std::string(domain) + ".plist");
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  plist::ReadResult read = plist::readPropertyListFile(path);
  if (!read) return std::nullopt;
  const plist::Dictionary* d = read.value->ifDictionary();
  if (!d) return std::nullopt;
  const plist::Value* v = d->find(key);
  if (!v) return std::nullopt;
  return *v;
}

}  // namespace gw::prefs
