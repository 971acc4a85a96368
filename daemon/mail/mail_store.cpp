#include "daemon/mail/mail_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <gatewise/log.h>
#include <gatewise/mail.h>
#include <gatewise/qrm_helper.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "daemon/mail/private_folder.h"

namespace gw::daemon {
namespace {

constexpr std::size_t kMaxWhiteListFileSize = std::size_t(16) << 20;
// More entries than this in a chat log folder are not looked at (the bounds keep far fewer).
constexpr std::size_t kMaxListedEntries = 100000;

bool sameAddress(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; };
           return lower(x) == lower(y);
         });
}

fs::UniqueFd userFolder(uid_t uid) {
  std::string error;
  fs::UniqueFd folder = openUserFolder(uid, &error);
  if (!folder) GW_LOG(0, "*** Cannot open the folder of uid %d: %@", int(uid), error);
  return folder;
}

std::vector<std::string> readContacts(int folder, bool* ok) {
  std::vector<std::string> out;
  *ok = true;
  struct stat st;
  if (::fstatat(folder, kMailWhiteListFile, &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
    return out;
  }
  std::string error;
  std::optional<std::string> bytes =
      readPrivateFile(folder, kMailWhiteListFile, kMaxWhiteListFileSize, &error);
  plist::ReadResult read;
  if (bytes && !(read = plist::readPropertyList(*bytes))) error = read.error;
  if (!bytes || !read || !read.value->isArray()) {
    GW_LOG(0, "*** The mail white list cannot be read: %@", error.empty() ? "not an array" : error);
    *ok = false;
    return out;
  }
  for (const plist::Value& v : *read.value->array()) {
    if (const std::string* s = v.ifString()) out.push_back(*s);
  }
  return out;
}

// Names sort oldest first: milliseconds since 1970, then a sequence within the process.
std::string chatLogName(std::uint32_t sequence) {
  char name[64];
  std::snprintf(name, sizeof name, "chat-%013lld-%010u.plist",
                static_cast<long long>(plist::Date::now().unixTime() * 1000), sequence);
  return name;
}

bool isChatLogName(std::string_view name) {
  return name.starts_with("chat-") && name.ends_with(".plist");
}

struct ChatLogEntry {
  std::string name;
  std::size_t size;
};

std::vector<ChatLogEntry> listChatLogs(int folder) {
  std::vector<ChatLogEntry> out;
  int copy = ::fcntl(folder, F_DUPFD_CLOEXEC, 0);
  DIR* dir = copy >= 0 ? ::fdopendir(copy) : nullptr;
  if (!dir) {
    if (copy >= 0) ::close(copy);
    return out;
  }
  ::rewinddir(dir);
  while (dirent* entry = ::readdir(dir)) {
    if (out.size() >= kMaxListedEntries) break;
    if (!isChatLogName(entry->d_name)) continue;
    struct stat st;
    if (::fstatat(folder, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    out.push_back({entry->d_name, S_ISREG(st.st_mode) ? std::size_t(st.st_size) : 0});
  }
  ::closedir(dir);
  std::sort(out.begin(), out.end(),
            [](const ChatLogEntry& a, const ChatLogEntry& b) { return a.name < b.name; });
  return out;
}

}  // namespace

std::vector<std::string> MailStore::contacts(uid_t uid) {
  fs::UniqueFd folder = userFolder(uid);
  if (!folder) return {};
  bool ok = false;
  return readContacts(folder.get(), &ok);
}

bool MailStore::addContacts(uid_t uid, const std::string& userName,
                            const std::vector<std::string>& addresses) {
  fs::UniqueFd folder = userFolder(uid);
  if (!folder) return false;
  bool ok = false;
  std::vector<std::string> list = readContacts(folder.get(), &ok);
  if (!ok) return false;
  std::size_t added = 0;
  for (const std::string& address : addresses) {
    if (address.empty() || address.size() > limits_.maxContactLength) {
      GW_LOG(0, "*** Mail contact of %d bytes skipped", int(address.size()));
      continue;
    }
    auto same = [&](const std::string& a) { return sameAddress(a, address); };
    if (std::any_of(list.begin(), list.end(), same)) continue;
    if (list.size() >= limits_.maxContacts) {
      GW_LOG(0, "*** The mail white list of uid %d is full (%d addresses)", int(uid),
             int(limits_.maxContacts));
      break;
    }
    list.push_back(address);
    ++added;
  }
  GW_LOG(1, "%d mail contacts added for uid %d", int(added), int(uid));
  return writeContacts(folder.get(), uid, userName, list);
}

bool MailStore::removeContact(uid_t uid, const std::string& userName, const std::string& address) {
  fs::UniqueFd folder = userFolder(uid);
  if (!folder) return false;
  bool ok = false;
  std::vector<std::string> list = readContacts(folder.get(), &ok);
  if (!ok) return false;
  std::erase_if(list, [&](const std::string& a) { return sameAddress(a, address); });
  return writeContacts(folder.get(), uid, userName, list);
}

bool MailStore::writeContacts(int folder, uid_t uid, const std::string& userName,
                              const std::vector<std::string>& addresses) {
  auto array = plist::Array::make();
  for (const std::string& a : addresses) array->append(a);
  std::string error;
  std::optional<std::string> xml = plist::writePropertyList(array, plist::Format::XML, &error);
  if (!xml || !writePrivateFile(folder, kMailWhiteListFile, *xml, &error)) {
    GW_LOG(0, "*** The mail white list of uid %d cannot be written: %@", int(uid), error);
    return false;
  }
  // Mail programs read the published copy. The daemon neither waits on the bus nor on itself.
  auto manager =
      GWManagedPreferencesManager::managerForUser(userName, {.notify = false, .askDaemon = false});
  if (!manager) return true;
  GWQRMHelper::qrmHelperForManager(manager)->setForcedPrefsObject(array, kGWMailWhiteListKey,
                                                                  kGWMailWhiteListDomain);
  return true;
}

bool MailStore::saveChatLog(uid_t uid, const plist::DictionaryRef& record) {
  std::string error;
  std::optional<std::string> bytes =
      plist::writePropertyList(record, plist::Format::Binary, &error);
  if (!bytes) {
    GW_LOG(0, "*** The chat log of uid %d cannot be written: %@", int(uid), error);
    return false;
  }
  if (bytes->size() > limits_.maxChatLogBytes) {
    GW_LOG(0, "*** Chat log of %d bytes refused for uid %d", int(bytes->size()), int(uid));
    return false;
  }
  fs::UniqueFd user = userFolder(uid);
  if (!user) return false;
  fs::UniqueFd logs = openPrivateFolder(user.get(), kChatLogFolder, &error);
  if (!logs || !writePrivateFile(logs.get(), chatLogName(sequence_++), *bytes, &error)) {
    GW_LOG(0, "*** The chat log of uid %d cannot be written: %@", int(uid), error);
    return false;
  }
  rotateChatLogs(logs.get(), uid);
  return true;
}

void MailStore::rotateChatLogs(int folder, uid_t uid) {
  std::vector<ChatLogEntry> logs = listChatLogs(folder);
  std::size_t total = 0;
  for (const ChatLogEntry& e : logs) total += e.size;
  std::size_t first = 0;
  while (first < logs.size() &&
         (total > limits_.maxChatLogTotal || logs.size() - first > limits_.maxChatLogs)) {
    if (::unlinkat(folder, logs[first].name.c_str(), 0) != 0 && errno != ENOENT) {
      GW_LOG(0, "*** Cannot remove chat log %@: %s", logs[first].name, std::strerror(errno));
      break;
    }
    total -= logs[first].size;
    ++first;
  }
  if (first > 0) GW_LOG(1, "%d old chat logs of uid %d rotated out", int(first), int(uid));
}

std::vector<std::string> MailStore::chatLogs(uid_t uid) {
  fs::UniqueFd user = userFolder(uid);
  if (!user) return {};
  std::string error;
  fs::UniqueFd logs = openPrivateFolder(user.get(), kChatLogFolder, &error);
  std::vector<std::string> names;
  if (!logs) return names;
  for (ChatLogEntry& e : listChatLogs(logs.get())) names.push_back(std::move(e.name));
  return names;
}

}  // namespace gw::daemon
