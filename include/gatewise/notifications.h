// Distributed notifications: named events with an object string and a user-info dictionary,
// posted by one process and seen by every process that observes the name.
//
// They travel as D-Bus signals on the system bus ($DBUS_SYSTEM_BUS_ADDRESS when set): object path
// "/com/morvane/gatewise/Notifications", interface "com.morvane.gatewise.Notifications", member
// "Posted", body "sss" = name, object, user info as an XML property list ("" for none).
//
// Posting may be done from any thread; it opens its own connection, waits at most two seconds for
// the message to leave, and reports failure (no bus, time-out) as false with a logged reason.
//
// Observing starts no thread. The process keeps one observing connection, attached to the default
// event loop of the thread that registered the first observer (see runloop.h): callbacks run when
// that loop runs, or when anyone calls drainPendingNotifications(), on the draining thread. The
// library drains before it reads state that an observer guards. Callbacks may add or remove
// observers and post.
#pragma once

#include <gatewise/export.h>
#include <gatewise/plist.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace gw::notify {

inline constexpr const char* kObjectPath = "/com/morvane/gatewise/Notifications";
inline constexpr const char* kInterface = "com.morvane.gatewise.Notifications";
inline constexpr const char* kSignalName = "Posted";

struct Notification {
  std::string name;
  std::string object;
  plist::DictionaryRef userInfo;  // nullptr when none was sent or it could not be read
};

using Callback = std::function<void(const Notification&)>;
using ObserverID = std::uint64_t;

// Sends the notification; false (logged at level 0) when the bus cannot be reached in time or the
// user info cannot be written as a property list.
GW_EXPORT bool postNotification(std::string_view name, std::string_view object = {},
                                const plist::DictionaryRef& userInfo = nullptr);

// Calls callback for every notification named name (every notification when name is empty)
// whose object equals object (any object when empty). The match is installed on the bus before
// this returns. nullopt (logged) when the bus cannot be reached or the name cannot be matched.
GW_EXPORT std::optional<ObserverID> addObserver(std::string_view name, std::string_view object,
                                                Callback callback);
GW_EXPORT void removeObserver(ObserverID observer);

// Dispatches the notifications that have already arrived, on the calling thread. Does nothing
// while another thread is dispatching (its callbacks are running right then).
GW_EXPORT void drainPendingNotifications();

}  // namespace gw::notify
