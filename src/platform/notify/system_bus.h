// Connections to the system bus with bounded waits.
//
// openSystemBus() connects to $DBUS_SYSTEM_BUS_ADDRESS (read with secure_getenv; default the
// standard system socket) with a method-call time-out, so no call on the connection blocks a
// caller for long. The returned connection belongs to the caller and to the calling process;
// sd-bus connections are not thread-safe, so each user serialises its own access.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <memory>
#include <string>

namespace gw::notify {

inline constexpr std::chrono::milliseconds kBusTimeout{2000};

struct BusCloser {
  void operator()(sd_bus* bus) const {
    sd_bus_close(bus);
    sd_bus_unref(bus);
  }
};
using BusPtr = std::unique_ptr<sd_bus, BusCloser>;

// A started connection, or nullptr with *error set.
BusPtr openSystemBus(std::string* error);

// Processes the connection until everything queued has been written and the bus handshake is
// done, or until timeout; false with *error set on failure.
bool flushWithin(sd_bus* bus, std::chrono::milliseconds timeout, std::string* error);

}  // namespace gw::notify
