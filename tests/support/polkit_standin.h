// A polkit authority for tests: serves org.freedesktop.PolicyKit1.Authority.CheckAuthorization at
// /org/freedesktop/PolicyKit1/Authority under the name org.freedesktop.PolicyKit1 on the system bus
// of the moment ($DBUS_SYSTEM_BUS_ADDRESS: start a PrivateBus first), on a thread of its own.
//
// Every call is recorded as it arrived and answered as the test says (authorized, or refused, or
// dismissed, or a D-Bus error). The name is owned before the constructor returns; destruction stops
// the thread and releases the name.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace gwtest {

struct PolkitRequest {
  std::string subjectKind;
  std::uint32_t pid = 0;
  std::uint64_t startTime = 0;
  std::int32_t uid = -1;
  std::string actionId;
  std::size_t detailCount = 0;
  std::uint32_t flags = 0;
  std::string cancellationId;
};

enum class PolkitAnswer { Authorized, Refused, Dismissed, Error };

class PolkitStandIn {
 public:
  PolkitStandIn();  // throws std::runtime_error when the bus or the name cannot be had
  ~PolkitStandIn();
  PolkitStandIn(const PolkitStandIn&) = delete;
  PolkitStandIn& operator=(const PolkitStandIn&) = delete;

  void answer(PolkitAnswer answer);
  std::vector<PolkitRequest> requests() const;

  // Called on the stand-in's thread by the method handler.
  int handle(void* message, void* error);

 private:
  void serve();

  void* bus_ = nullptr;  // sd_bus*, owned by the serving thread once started
  void* slot_ = nullptr;
  int stopFd_ = -1;
  std::thread thread_;
  mutable std::mutex mutex_;
  PolkitAnswer answer_ = PolkitAnswer::Authorized;
  std::vector<PolkitRequest> requests_;
};

}  // namespace gwtest
