// A private system bus for tests: a dbus-daemon of the test's own, listening on a unix socket in a
// temporary folder, with DBUS_SYSTEM_BUS_ADDRESS pointing at it while the object lives (the
// previous value is restored afterwards).
//
// sharedPrivateBus() starts one bus for the whole test program on first use and stops it at exit;
// use it when code under test keeps a process-wide connection (the notification center does).
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace gwtest {

class PrivateBus {
 public:
  PrivateBus();  // throws std::runtime_error when dbus-daemon cannot be started
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& address() const { return address_; }

 private:
  std::string folder_;
  std::string address_;
  std::optional<std::string> previousAddress_;  // restored on destruction
  pid_t pid_ = -1;
};

PrivateBus& sharedPrivateBus();

}  // namespace gwtest
