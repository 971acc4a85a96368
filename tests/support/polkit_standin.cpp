#include "support/polkit_standin.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace gwtest {
namespace {

sd_bus* busOf(void* p) { return static_cast<sd_bus*>(p); }

int onCheckAuthorization(sd_bus_message* m, void* userdata, sd_bus_error* error) {
  return static_cast<PolkitStandIn*>(userdata)->handle(m, error);
}

const sd_bus_vtable kAuthorityVTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("CheckAuthorization", "(sa{sv})sa{ss}us", "(bba{ss})", onCheckAuthorization,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

// Reads the subject (sa{sv}) with the three unix-process fields.
int readSubject(sd_bus_message* m, PolkitRequest& request) {
  const char* kind = nullptr;
  int r = sd_bus_message_enter_container(m, 'r', "sa{sv}");
  if (r < 0 || (r = sd_bus_message_read(m, "s", &kind)) < 0) return r;
  request.subjectKind = kind;
  if ((r = sd_bus_message_enter_container(m, 'a', "{sv}")) < 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char* key = nullptr;
    if ((r = sd_bus_message_read(m, "s", &key)) < 0) return r;
    if (std::strcmp(key, "pid") == 0) {
      r = sd_bus_message_read(m, "v", "u", &request.pid);
    } else if (std::strcmp(key, "start-time") == 0) {
      r = sd_bus_message_read(m, "v", "t", &request.startTime);
    } else if (std::strcmp(key, "uid") == 0) {
      r = sd_bus_message_read(m, "v", "i", &request.uid);
    } else {
      r = sd_bus_message_skip(m, "v");
    }
    if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) return r;
  }
  if (r < 0 || (r = sd_bus_message_exit_container(m)) < 0) return r;
  return sd_bus_message_exit_container(m);
}

}  // namespace

PolkitStandIn::PolkitStandIn() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_system(&bus) < 0) throw std::runtime_error("polkit stand-in: no system bus");
  bus_ = bus;
  sd_bus_slot* slot = nullptr;
  if (sd_bus_add_object_vtable(bus, &slot, "/org/freedesktop/PolicyKit1/Authority",
                               "org.freedesktop.PolicyKit1.Authority", kAuthorityVTable,
                               this) < 0 ||
      sd_bus_request_name(bus, "org.freedesktop.PolicyKit1", 0) < 0) {
    sd_bus_slot_unref(slot);
    sd_bus_flush_close_unref(bus);
    throw std::runtime_error("polkit stand-in: cannot serve the authority");
  }
  slot_ = slot;
  stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  thread_ = std::thread([this] { serve(); });
}

PolkitStandIn::~PolkitStandIn() {
  std::uint64_t one = 1;
  if (::write(stopFd_, &one, sizeof one) != sizeof one) std::abort();
  thread_.join();
  ::close(stopFd_);
  sd_bus_slot_unref(static_cast<sd_bus_slot*>(slot_));
  sd_bus_release_name(busOf(bus_), "org.freedesktop.PolicyKit1");
  sd_bus_flush_close_unref(busOf(bus_));
}

void PolkitStandIn::answer(PolkitAnswer answer) {
  std::lock_guard lock(mutex_);
  answer_ = answer;
}

std::vector<PolkitRequest> PolkitStandIn::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

void PolkitStandIn::serve() {
  sd_bus* bus = busOf(bus_);
  for (;;) {
    int r;
    while ((r = sd_bus_process(bus, nullptr)) > 0) {
    }
    if (r < 0) return;
    pollfd fds[2] = {{sd_bus_get_fd(bus), short(sd_bus_get_events(bus)), 0}, {stopFd_, POLLIN, 0}};
    // The bus may have a deadline of its own (a pending handshake): wake up for it.
    std::uint64_t until = 0;
    int wait = -1;
    if (sd_bus_get_timeout(bus, &until) > 0 && until != UINT64_MAX) {
      timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      std::uint64_t nowUs = std::uint64_t(now.tv_sec) * 1000000 + std::uint64_t(now.tv_nsec) / 1000;
      wait = until > nowUs ? int(std::min<std::uint64_t>((until - nowUs + 999) / 1000, 60000)) : 0;
    }
    if (::poll(fds, 2, wait) < 0 && errno != EINTR) return;
    if (fds[1].revents & POLLIN) return;
  }
}

int PolkitStandIn::handle(void* message, void* error) {
  auto* m = static_cast<sd_bus_message*>(message);
  PolkitRequest request;
  const char* action = nullptr;
  const char* cancellation = nullptr;
  int r = readSubject(m, request);
  if (r >= 0) r = sd_bus_message_read(m, "s", &action);
  if (r >= 0) r = sd_bus_message_enter_container(m, 'a', "{ss}");
  while (r >= 0) {
    const char* key = nullptr;
    const char* value = nullptr;
    r = sd_bus_message_read(m, "{ss}", &key, &value);
    if (r <= 0) break;
    ++request.detailCount;
  }
  if (r >= 0) r = sd_bus_message_exit_container(m);
  if (r >= 0) r = sd_bus_message_read(m, "us", &request.flags, &cancellation);
  if (r < 0) return r;
  request.actionId = action;
  request.cancellationId = cancellation;
  PolkitAnswer answer;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
    answer = answer_;
  }
  if (answer == PolkitAnswer::Error) {
    return sd_bus_error_set(static_cast<sd_bus_error*>(error),
                            "org.freedesktop.PolicyKit1.Error.Failed", "stand-in says no");
  }
  sd_bus_message* reply = nullptr;
  r = sd_bus_message_new_method_return(m, &reply);
  if (r >= 0) {
    bool authorized = answer == PolkitAnswer::Authorized;
    if (answer == PolkitAnswer::Dismissed) {
      r = sd_bus_message_append(reply, "(bba{ss})", 0, 0, 1, "polkit.dismissed", "true");
    } else {
      r = sd_bus_message_append(reply, "(bba{ss})", int(authorized), 0, 0);
    }
  }
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r < 0 ? r : 1;
}

}  // namespace gwtest
