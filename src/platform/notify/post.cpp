// Posting: one short-lived connection per notification, so a poster never shares bus state
// between threads and never waits past the bus time-out.
#include <gatewise/log.h>
#include <gatewise/notifications.h>

#include <cstring>

#include "platform/notify/system_bus.h"

namespace gw::notify {

bool postNotification(std::string_view name, std::string_view object,
                      const plist::DictionaryRef& userInfo) {
  std::string info;
  if (userInfo) {
    std::string error;
    auto xml = plist::writePropertyList(plist::Value(userInfo), plist::Format::XML, &error);
    if (!xml) {
      GW_LOG(0, "*** Couldn't post %.*s: user info is not a property list: %s", int(name.size()),
             name.data(), error.c_str());
      return false;
    }
    info = std::move(*xml);
  }
  std::string error;
  BusPtr bus = openSystemBus(&error);
  if (bus) {
    std::string nameText(name), objectText(object);
    int r = sd_bus_emit_signal(bus.get(), kObjectPath, kInterface, kSignalName, "sss",
                               nameText.c_str(), objectText.c_str(), info.c_str());
    if (r < 0) {
      error = std::string("cannot send the signal: ") + std::strerror(-r);
    } else if (flushWithin(bus.get(), kBusTimeout, &error)) {
      GW_LOG(2, "posted %.*s", int(name.size()), name.data());
      return true;
    }
  }
  GW_LOG(0, "*** Couldn't post %.*s: %s", int(name.size()), name.data(), error.c_str());
  return false;
}

}  // namespace gw::notify
