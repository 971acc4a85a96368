#include "platform/notify/system_bus.h"

#include <cstdlib>
#include <cstring>

namespace gw::notify {
namespace {

constexpr const char* kDefaultSystemBus = "unix:path=/run/dbus/system_bus_socket";

std::string errnoText(const char* what, int r) {
  return std::string(what) + ": " + std::strerror(-r);
}

}  // namespace

BusPtr openSystemBus(std::string* error) {
  sd_bus* raw = nullptr;
  int r = sd_bus_new(&raw);
  if (r < 0) {
    *error = errnoText("cannot create a bus connection", r);
    return nullptr;
  }
  BusPtr bus(raw);
  const char* address = ::secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
  if ((r = sd_bus_set_address(bus.get(), address && *address ? address : kDefaultSystemBus)) < 0 ||
      (r = sd_bus_set_bus_client(bus.get(), 1)) < 0 ||
      (r = sd_bus_set_method_call_timeout(
           bus.get(), std::uint64_t(std::chrono::microseconds(kBusTimeout).count()))) < 0 ||
      (r = sd_bus_start(bus.get())) < 0) {
    *error = errnoText("cannot connect to the system bus", r);
    return nullptr;
  }
  return bus;
}

bool flushWithin(sd_bus* bus, std::chrono::milliseconds timeout, std::string* error) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    int r = sd_bus_process(bus, nullptr);
    if (r < 0) {
      *error = errnoText("bus connection failed", r);
      return false;
    }
    if (r > 0) continue;
    std::uint64_t queued = 0;
    if (sd_bus_is_ready(bus) > 0 && sd_bus_get_n_queued_write(bus, &queued) >= 0 && queued == 0) {
      return true;
    }
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      *error = "timed out waiting for the system bus";
      return false;
    }
    r = sd_bus_wait(bus, std::uint64_t(left.count()));
    if (r < 0 && r != -EINTR) {
      *error = errnoText("bus connection failed", r);
      return false;
    }
  }
}

}  // namespace gw::notify
