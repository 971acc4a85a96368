// Desktop notifications through org.freedesktop.Notifications on the user's session bus.
//
// The notifier owns one session-bus connection ($DBUS_SESSION_BUS_ADDRESS, else the user's bus),
// attached to the agent's event loop; when the bus goes away the loop is told to exit, because the
// session has ended. Notify calls are asynchronous, so a slow notification server never stalls the
// loop: each call's completion runs on the loop with the server's id (0 when the call failed or
// timed out). Calls still pending when the notifier is destroyed are cancelled without their
// completion. The agent's thread only.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace gw::agent {

struct DesktopNotification {
  std::string summary;
  std::string body;
  std::uint8_t urgency = 1;           // 0 low, 1 normal, 2 critical
  std::int32_t expireTimeoutMs = -1;  // -1: the server's default, 0: until dismissed
  std::uint32_t replaces = 0;
};

class DesktopNotifier {
 public:
  using Completion = std::function<void(std::uint32_t notificationId)>;
  static constexpr const char* kAppName = "Gatewise";

  // nullptr (with the reason in *error) when the session bus cannot be reached.
  static std::unique_ptr<DesktopNotifier> open(sd_event* loop, std::string* error);
  ~DesktopNotifier();
  DesktopNotifier(const DesktopNotifier&) = delete;
  DesktopNotifier& operator=(const DesktopNotifier&) = delete;

  // Sends the notification; false (logged) when the call could not even be queued, in which case
  // done is not called.
  bool notify(const DesktopNotification& notification, Completion done);
  // Notify calls sent and not answered yet.
  std::size_t inFlight() const { return pending_.size(); }

 private:
  explicit DesktopNotifier(sd_bus* bus) : bus_(bus) {}
  static int onReply(sd_bus_message* reply, void* userdata, sd_bus_error* error);

  struct Pending {
    sd_bus_slot* slot = nullptr;
    Completion done;
  };
  sd_bus* bus_;
  std::map<std::uint64_t, Pending> pending_;
  std::uint64_t nextToken_ = 1;
};

}  // namespace gw::agent
