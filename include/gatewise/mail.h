// Mail white list and chat logs: what the mail and chat programs hand to the daemon.
//
// A managed user's mail program asks the daemon (tutelad, "com.morvane.gatewise") to add contacts
// to or remove one address from a user's mail white list, and the chat program hands over each
// finished chat log. Each request is one dictionary written as an XML property list and sent as a
// one-way message with a 1000 ms time-out; nothing comes back and the caller learns nothing. A
// mail request whose XML is longer than kGWMailPayloadLimit bytes is refused whole ("*** 100K
// limit exceeded"), never split or cut. Every failure is logged and the request dropped; a daemon
// that is not running loses mail-list changes silently, while the chat function logs
// "*** tutelad is not running".
//
// Any thread; each call uses its own connection. Nothing is thrown; the arguments stay the
// caller's. The daemon decides on its own what a request may change: it knows the caller from the
// socket, not from the payload (see docs/ARCHITECTURE.md, "Mail white list and chat logs").
#pragma once

#include <gatewise/export.h>
#include <gatewise/plist.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

// The most bytes of XML a mail request may take.
inline constexpr std::size_t kGWMailPayloadLimit = 102400;

// Payload keys.
inline constexpr const char kGWMailUserNameKey[] = "userName";
inline constexpr const char kGWMailContactListKey[] = "contactList";
inline constexpr const char kGWMailEmailAddressKey[] = "emailAddress";
inline constexpr const char kGWChatParticipantsKey[] = "participants";
inline constexpr const char kGWChatFilePathKey[] = "filePath";
inline constexpr const char kGWChatFileDataKey[] = "fileData";

// Where the daemon publishes a user's mail white list for mail programs: a forced preference of
// the user, key kGWMailWhiteListKey (an array of address strings) in this domain. The daemon's own
// record stays in its folder, out of the user's reach; the published copy is rewritten from it
// after every change.
inline constexpr const char kGWMailWhiteListDomain[] = "com.morvane.gatewise.mail";
inline constexpr const char kGWMailWhiteListKey[] = "whiteList";

// Asks the daemon to add the contacts (any property-list values, passed as given) to userName's
// mail white list. An empty or null list or user name: "*** invalid param", nothing sent.
GW_EXPORT void GWMailAddToWhiteList(const gw::plist::ArrayRef& contactList,
                                    std::optional<std::string_view> userName);

// Asks the daemon to remove one address from userName's mail white list. An empty or null address
// or user name: "*** invalid param", nothing sent.
GW_EXPORT void GWMailRemoveFromWhiteList(std::optional<std::string_view> emailAddress,
                                         std::optional<std::string_view> userName);

// Hands a finished chat log to the daemon with the real user id of the calling process, which the
// payload also names in "userName". participants is passed through unchanged (any property-list
// value). A null argument (a Null participants value, no path, no data): "invalid param", nothing
// sent; empty data is sent.
GW_EXPORT void GWParletSaveChatLog(const gw::plist::Value& participants,
                                   std::optional<std::string_view> filePath,
                                   const std::shared_ptr<const gw::plist::Data>& fileData);
