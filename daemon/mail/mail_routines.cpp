// The daemon's rows for the mail white list and chat logs.
//
// Who may do what, by the caller's uid from the socket:
//   - adding contacts to a user's white list: root, or an administrator (a member of "admin",
//     "sudo" or "wheel"). A managed user cannot widen their own list; a parent approves a contact
//     from an administrator's account or with `gatewise mail add` as root.
//   - removing a contact: those, and the user themself (narrowing one's own list is harmless).
//   - saving a chat log: anyone, always into the caller's own store; the uid field and the
//     payload's "userName" are claims and only logged when they disagree.
// Every request goes through the per-peer rate limiter, and payloads are bounded before they are
// parsed: mail requests by the library's own limit, chat logs by the store's.
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <gatewise/mail.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "daemon/mail/mail_store.h"
#include "daemon/manager.h"
#include "daemon/routine_table.h"

namespace gw::daemon {
namespace {

using ipc::Reply;
using ipc::Request;

constexpr unsigned kMaxPayloadDepth = 16;
// A chat log's data travels base64-encoded in XML: room for that and for the other keys.
constexpr std::size_t kChatPayloadSlack = 64 * 1024;

bool isAdministrator(uid_t uid) {
  if (uid == 0) return true;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return false;
  const char* name = found->pw_name;
  int count = 64;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  if (::getgrouplist(name, found->pw_gid, groups.data(), &count) < 0) {
    if (count <= 0 || count > 65536) return false;
    groups.resize(std::size_t(count));
    if (::getgrouplist(name, found->pw_gid, groups.data(), &count) < 0) return false;
  }
  groups.resize(std::size_t(count));
  std::vector<char> groupBuffer(16384);
  for (gid_t gid : groups) {
    group g{};
    group* hit = nullptr;
    if (::getgrgid_r(gid, &g, groupBuffer.data(), groupBuffer.size(), &hit) != 0 || !hit) continue;
    std::string_view n = hit->gr_name;
    if (n == "admin" || n == "sudo" || n == "wheel") return true;
  }
  return false;
}

// The payload's dictionary, or nullptr (logged) when it is too large or not a dictionary.
plist::DictionaryRef payload(const Request& r, std::size_t limit) {
  std::span<const std::uint8_t> bytes = r.field("data").bytes;
  if (bytes.size() > limit) {
    GW_LOG(0, "*** %s: %d bytes refused from uid %d", std::string(r.routine.name).c_str(),
           int(bytes.size()), int(r.peer.uid));
    return nullptr;
  }
  plist::ReadResult read = plist::readPropertyList(bytes, {.maxDepth = kMaxPayloadDepth});
  if (!read || !read.value->isDictionary()) {
    GW_LOG(0, "*** %s: unreadable payload from uid %d", std::string(r.routine.name).c_str(),
           int(r.peer.uid));
    return nullptr;
  }
  return read.value->dictionary();
}

// The user a mail request names, when the caller may change their list.
std::optional<std::pair<uid_t, std::string>> mailSubject(const Request& r,
                                                         const plist::Dictionary& request,
                                                         bool removing) {
  const std::string* name = request.get(kGWMailUserNameKey).ifString();
  std::uint32_t uid = name ? UIDForShortName(*name) : 0xFFFFFFFF;
  if (uid == 0xFFFFFFFF) {
    GW_LOG(0, "*** %s: unknown user from uid %d", std::string(r.routine.name).c_str(),
           int(r.peer.uid));
    return std::nullopt;
  }
  bool allowed = isAdministrator(r.peer.uid) || (removing && uid_t(uid) == r.peer.uid);
  if (!allowed) {
    GW_LOG(0, "*** uid %d may not change the mail white list of %@", int(r.peer.uid), *name);
    return std::nullopt;
  }
  return std::pair{uid_t(uid), *name};
}

Reply addContacts(Manager& m, const Request& r) {
  if (!m.allowPeer(r.peer.uid)) return {};
  plist::DictionaryRef request = payload(r, kGWMailPayloadLimit);
  if (!request) return {};
  auto subject = mailSubject(r, *request, false);
  const plist::Value& list = request->get(kGWMailContactListKey);
  if (!subject || !list.isArray()) return {};
  std::vector<std::string> addresses;
  for (const plist::Value& v : *list.array()) {
    if (const std::string* s = v.ifString()) addresses.push_back(*s);
  }
  m.mail().addContacts(subject->first, subject->second, addresses);
  return {};
}

Reply removeContact(Manager& m, const Request& r) {
  if (!m.allowPeer(r.peer.uid)) return {};
  plist::DictionaryRef request = payload(r, kGWMailPayloadLimit);
  if (!request) return {};
  auto subject = mailSubject(r, *request, true);
  const std::string* address = request->get(kGWMailEmailAddressKey).ifString();
  if (!subject || !address || address->empty()) return {};
  m.mail().removeContact(subject->first, subject->second, *address);
  return {};
}

Reply saveChatLog(Manager& m, const Request& r) {
  if (!m.allowPeer(r.peer.uid)) return {};
  MailStore& store = m.mail();
  plist::DictionaryRef request =
      payload(r, store.limits().maxChatLogBytes * 4 / 3 + kChatPayloadSlack);
  if (!request) return {};
  uid_t uid = r.peer.uid;
  if (r.field("value").integer != std::int64_t(uid)) {
    GW_LOG(1, "uid %d sent a chat log claiming uid %d; stored as its own", int(uid),
           int(r.field("value").integer));
  }
  // The record keeps what the chat program sent, with the sender as the socket knows it.
  auto record = plist::Dictionary::make();
  for (const char* key : {kGWChatParticipantsKey, kGWChatFilePathKey, kGWChatFileDataKey}) {
    if (const plist::Value* v = request->find(key)) record->set(key, *v);
  }
  if (!record->get(kGWChatFileDataKey).isData()) {
    GW_LOG(0, "*** Chat log without data from uid %d", int(uid));
    return {};
  }
  record->set(kGWMailUserNameKey, GetUserShortNameForUID(uid).value_or(std::to_string(uid)));
  record->set("uid", std::int64_t(uid));
  record->set("received", m.now());
  store.saveChatLog(uid, record);
  return {};
}

constexpr RoutineHandler kRoutines[] = {
    {"_GWMIGMailAddContactsToWhiteList", addContacts},
    {"_GWMIGMailRemoveContactFromWhiteList", removeContact},
    {"_GWMIGParletSaveChatLog", saveChatLog},
};

}  // namespace

std::span<const RoutineHandler> mailRoutines() { return kRoutines; }

}  // namespace gw::daemon
