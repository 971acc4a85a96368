#include "daemon/sessions/logind_bus.h"

#include <gatewise/log.h>
#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace gw::daemon::logind {
namespace {

int deliverReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  (*static_cast<ReplyHandler*>(userdata))(reply);
  return 0;
}

void dropHandler(void* userdata) { delete static_cast<ReplyHandler*>(userdata); }

}  // namespace

bool logindRuns(sd_bus* bus) {
  if (const char* forced = ::secure_getenv("GATEWISE_SESSION_SOURCE"); forced && *forced) {
    if (std::string_view(forced) == "logind") return true;
    if (std::string_view(forced) == "utmpx") return false;
    GW_LOG(0, "*** unknown GATEWISE_SESSION_SOURCE \"%s\", ignored", forced);
  }
  if (!bus || sd_booted() <= 0) return false;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus", "NameHasOwner", &error, &reply, "s", kService);
  int owned = 0;
  if (r >= 0) r = sd_bus_message_read(reply, "b", &owned);
  if (r < 0) {
    GW_LOG(0, "*** cannot ask the system bus for %s: %s", kService,
           error.message ? error.message : std::strerror(-r));
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  return r >= 0 && owned;
}

bool attachToLoop(sd_bus* bus, sd_event* loop) {
  if (sd_event* current = sd_bus_get_event(bus)) {
    if (current == loop) return true;
    GW_LOG(0, "*** the system bus connection is attached to another event loop");
    return false;
  }
  if (int r = sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL); r < 0) {
    GW_LOG(0, "*** cannot attach the system bus to the event loop: %s", std::strerror(-r));
    return false;
  }
  return true;
}

int callAsync(sd_bus* bus, sd_bus_message* call, ReplyHandler done) {
  auto handler = std::make_unique<ReplyHandler>(std::move(done));
  sd_bus_slot* slot = nullptr;
  int r = sd_bus_call_async(bus, &slot, call, deliverReply, handler.get(),
                            std::chrono::microseconds(kCallTimeout).count());
  if (r < 0) return r;
  // From here the slot owns the handler, and the bus owns the slot until the reply is in.
  sd_bus_slot_set_destroy_callback(slot, dropHandler);
  handler.release();
  sd_bus_slot_set_floating(slot, 1);
  sd_bus_slot_unref(slot);
  return 0;
}

}  // namespace gw::daemon::logind
