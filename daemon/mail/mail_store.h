// The daemon's record of each user's mail white list and chat logs.
//
// Both live in the user's private folder (see private_folder.h): the white list as
// "mail-whitelist.plist" (an XML array of addresses), each chat log as one binary property list in
// "ChatLogs/", named by the time it arrived so that names sort oldest first. Everything is bounded:
// addresses per user and bytes per address, bytes per chat log, and chat logs per user in number
// and in total bytes, the oldest rotated out when a new one would pass a bound. After each change
// the white list is published for mail programs as the user's forced preference
// (kGWMailWhiteListDomain, kGWMailWhiteListKey), rewritten whole from this record.
//
// Addresses are compared without regard to ASCII case; the first spelling added is kept. One
// thread (the manager's loop); failures are logged and reported as false.
#pragma once

#include <gatewise/plist.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace gw::daemon {

struct MailStoreLimits {
  std::size_t maxContacts = 10000;
  std::size_t maxContactLength = 512;
  std::size_t maxChatLogBytes = std::size_t(8) << 20;
  std::size_t maxChatLogTotal = std::size_t(64) << 20;
  std::size_t maxChatLogs = 1000;
};

inline constexpr const char* kMailWhiteListFile = "mail-whitelist.plist";
inline constexpr const char* kChatLogFolder = "ChatLogs";

class MailStore {
 public:
  explicit MailStore(MailStoreLimits limits = {}) : limits_(limits) {}

  // Adds the addresses not yet listed (empty, over-long or over the count: skipped, logged) and
  // publishes the list for userName. False when the record cannot be read or written.
  bool addContacts(uid_t uid, const std::string& userName,
                   const std::vector<std::string>& addresses);
  bool removeContact(uid_t uid, const std::string& userName, const std::string& address);
  // The recorded list; empty when there is none or it cannot be read.
  std::vector<std::string> contacts(uid_t uid);

  // Stores one chat log record (written as a binary property list), then rotates the oldest out
  // until the user's logs are within the bounds again. A record over maxChatLogBytes is refused.
  bool saveChatLog(uid_t uid, const plist::DictionaryRef& record);
  // The names of the user's chat logs, oldest first.
  std::vector<std::string> chatLogs(uid_t uid);

  const MailStoreLimits& limits() const { return limits_; }

 private:
  bool writeContacts(int folder, uid_t uid, const std::string& userName,
                     const std::vector<std::string>& addresses);
  void rotateChatLogs(int folder, uid_t uid);

  MailStoreLimits limits_;
  std::uint32_t sequence_ = 0;
};

}  // namespace gw::daemon
