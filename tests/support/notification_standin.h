// A desktop notification server for tests: owns org.freedesktop.Notifications on a bus of the
// test's own and records every call, speaking the real interface (Notify, CloseNotification,
// GetCapabilities, GetServerInformation, and the NotificationClosed signal).
//
// It serves on a thread of its own from construction (the name is owned before the constructor
// returns, replacing any earlier stand-in on the same bus) until destruction. Ids are handed out
// from 1, or the replaced id when a Notify names one it has shown. Accessors may be called from
// any thread.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace gwtest {

struct NotifyCall {
  std::string appName;
  std::uint32_t replacesId = 0;
  std::string appIcon;
  std::string summary;
  std::string body;
  std::vector<std::string> actions;
  std::optional<std::uint8_t> urgency;  // the "urgency" hint, when given as a byte
  std::int32_t expireTimeout = 0;
  std::uint32_t returnedId = 0;
};

class NotificationStandIn {
 public:
  explicit NotificationStandIn(const std::string& busAddress);  // throws std::runtime_error
  ~NotificationStandIn();
  NotificationStandIn(const NotificationStandIn&) = delete;
  NotificationStandIn& operator=(const NotificationStandIn&) = delete;

  std::vector<NotifyCall> notifications() const;
  std::vector<std::uint32_t> closed() const;
  // Waits (bounded) until at least n Notify calls have arrived.
  bool waitForNotifications(std::size_t n,
                            std::chrono::milliseconds limit = std::chrono::seconds(5)) const;

 private:
  static int onNotify(sd_bus_message* m, void* userdata, sd_bus_error* error);
  static int onClose(sd_bus_message* m, void* userdata, sd_bus_error* error);
  static int onCapabilities(sd_bus_message* m, void* userdata, sd_bus_error* error);
  static int onServerInformation(sd_bus_message* m, void* userdata, sd_bus_error* error);

  sd_bus* bus_ = nullptr;
  sd_event* loop_ = nullptr;
  int stopFd_ = -1;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<NotifyCall> notifications_;
  std::vector<std::uint32_t> closed_;
  std::uint32_t nextId_ = 1;
  std::thread thread_;
};

}  // namespace gwtest
