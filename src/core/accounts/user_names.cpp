// User ids, short names and login sessions.
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <pwd.h>

#include <vector>

#include "platform/sessions/sessions.h"
#include "platform/text/utf8.h"

namespace {

constexpr std::uint32_t kUnknownUID = 0xFFFFFFFF;

// getpw*_r want a caller buffer; entries with long member lists or GECOS need more than a page.
template <class Lookup>
std::optional<passwd> lookUpPasswd(Lookup lookup, std::vector<char>& buffer) {
  buffer.resize(4096);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    int r = lookup(&entry, buffer.data(), buffer.size(), &found);
    if (r == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 4);
      continue;
    }
    if (r != 0 || !found) return std::nullopt;
    return entry;
  }
}

}  // namespace

std::optional<std::string> GetUserShortNameForUID(uid_t uid) {
  std::vector<char> buffer;
  auto entry = lookUpPasswd([uid](passwd* e, char* b, std::size_t n,
                                  passwd** f) { return ::getpwuid_r(uid, e, b, n, f); },
                            buffer);
  if (!entry || !entry->pw_name || !*entry->pw_name) return std::nullopt;
  std::string name = entry->pw_name;
  if (!gw::text::isValidUTF8(name)) {
    GW_LOG(1, "*** user name of uid %u is not UTF-8", unsigned(uid));
    return std::nullopt;
  }
  return name;
}

std::uint32_t UIDForShortName(std::string_view name) {
  if (name.empty() || name.find('\0') != std::string_view::npos || !gw::text::isValidUTF8(name)) {
    return kUnknownUID;
  }
  std::string cName(name);
  std::vector<char> buffer;
  auto entry =
      lookUpPasswd([&cName](passwd* e, char* b, std::size_t n,
                            passwd** f) { return ::getpwnam_r(cName.c_str(), e, b, n, f); },
                   buffer);
  return entry ? std::uint32_t(entry->pw_uid) : kUnknownUID;
}

bool UserIsLoggedIn(uid_t uid) {
  auto sessions = gw::sessions::copySessionList();
  if (!sessions) return false;
  for (const auto& session : *sessions) {
    if (session.uid == uid) return true;
  }
  return false;
}
