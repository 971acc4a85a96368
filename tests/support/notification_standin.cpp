#include "support/notification_standin.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace gwtest {
namespace {

constexpr const char* kName = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";

int readHints(sd_bus_message* m, NotifyCall& call) {
  int r = sd_bus_message_enter_container(m, 'a', "{sv}");
  if (r < 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char* key = nullptr;
    if ((r = sd_bus_message_read(m, "s", &key)) < 0) return r;
    if (std::string(key) == "urgency" && sd_bus_message_verify_type(m, 'v', "y") > 0) {
      std::uint8_t urgency = 0;
      if ((r = sd_bus_message_read(m, "v", "y", &urgency)) < 0) return r;
      call.urgency = urgency;
    } else if ((r = sd_bus_message_skip(m, "v")) < 0) {
      return r;
    }
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;
  }
  if (r < 0) return r;
  return sd_bus_message_exit_container(m);
}

}  // namespace

int NotificationStandIn::onNotify(sd_bus_message* m, void* userdata, sd_bus_error*) {
  auto* self = static_cast<NotificationStandIn*>(userdata);
  NotifyCall call;
  const char *app = nullptr, *icon = nullptr, *summary = nullptr, *body = nullptr;
  int r = sd_bus_message_read(m, "susss", &app, &call.replacesId, &icon, &summary, &body);
  if (r < 0) return r;
  call.appName = app;
  call.appIcon = icon;
  call.summary = summary;
  call.body = body;
  char** actions = nullptr;
  if ((r = sd_bus_message_read_strv(m, &actions)) < 0) return r;
  for (char** a = actions; a && *a; ++a) {
    call.actions.push_back(*a);
    free(*a);
  }
  free(actions);
  if ((r = readHints(m, call)) < 0) return r;
  if ((r = sd_bus_message_read(m, "i", &call.expireTimeout)) < 0) return r;
  {
    std::lock_guard lock(self->mutex_);
    bool known = call.replacesId != 0 && call.replacesId < self->nextId_;
    call.returnedId = known ? call.replacesId : self->nextId_++;
    self->notifications_.push_back(call);
  }
  self->changed_.notify_all();
  return sd_bus_reply_method_return(m, "u", call.returnedId);
}

int NotificationStandIn::onClose(sd_bus_message* m, void* userdata, sd_bus_error*) {
  auto* self = static_cast<NotificationStandIn*>(userdata);
  std::uint32_t id = 0;
  int r = sd_bus_message_read(m, "u", &id);
  if (r < 0) return r;
  {
    std::lock_guard lock(self->mutex_);
    self->closed_.push_back(id);
  }
  self->changed_.notify_all();
  // Reason 3: closed by a call to CloseNotification.
  sd_bus_emit_signal(sd_bus_message_get_bus(m), kPath, kName, "NotificationClosed", "uu", id, 3u);
  return sd_bus_reply_method_return(m, "");
}

int NotificationStandIn::onCapabilities(sd_bus_message* m, void*, sd_bus_error*) {
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_return(m, &reply);
  if (r >= 0) r = sd_bus_message_append(reply, "as", 2, "body", "persistence");
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r;
}

int NotificationStandIn::onServerInformation(sd_bus_message* m, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(m, "ssss", "Test Notifications", "Gatewise tests", "1.0",
                                    "1.2");
}

NotificationStandIn::NotificationStandIn(const std::string& busAddress) {
  static const sd_bus_vtable kVtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", onNotify, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_METHOD("CloseNotification", "u", "", onClose, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_METHOD("GetCapabilities", "", "as", onCapabilities, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_METHOD("GetServerInformation", "", "ssss", onServerInformation,
                    SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_SIGNAL("NotificationClosed", "uu", 0),
      SD_BUS_SIGNAL("ActionInvoked", "us", 0),
      SD_BUS_VTABLE_END,
  };
  auto fail = [this](const char* what, int r) {
    sd_bus_flush_close_unref(bus_);
    sd_event_unref(loop_);
    if (stopFd_ >= 0) ::close(stopFd_);
    throw std::runtime_error(std::string("notification stand-in: ") + what + ": " +
                             std::to_string(r));
  };
  int r = sd_bus_new(&bus_);
  if (r < 0) fail("sd_bus_new", r);
  if ((r = sd_bus_set_address(bus_, busAddress.c_str())) < 0) fail("address", r);
  if ((r = sd_bus_set_bus_client(bus_, 1)) < 0) fail("client", r);
  if ((r = sd_bus_start(bus_)) < 0) fail("connect", r);
  if ((r = sd_bus_add_object_vtable(bus_, nullptr, kPath, kName, kVtable, this)) < 0)
    fail("vtable", r);
  // Take the name over from a stand-in of an earlier test whose disconnect the bus may not have
  // seen yet, and let the next one take it from this one.
  if ((r = sd_bus_request_name(bus_, kName,
                               SD_BUS_NAME_REPLACE_EXISTING | SD_BUS_NAME_ALLOW_REPLACEMENT)) < 0)
    fail("request name", r);
  if ((r = sd_event_new(&loop_)) < 0) fail("sd_event_new", r);
  if ((r = sd_bus_attach_event(bus_, loop_, SD_EVENT_PRIORITY_NORMAL)) < 0) fail("attach", r);
  stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stopFd_ < 0) fail("eventfd", -errno);
  r = sd_event_add_io(
      loop_, nullptr, stopFd_, EPOLLIN,
      [](sd_event_source* source, int, std::uint32_t, void*) {
        return sd_event_exit(sd_event_source_get_event(source), 0);
      },
      nullptr);
  if (r < 0) fail("stop source", r);
  thread_ = std::thread([this] { sd_event_loop(loop_); });
}

NotificationStandIn::~NotificationStandIn() {
  std::uint64_t one = 1;
  (void)::write(stopFd_, &one, sizeof one);
  thread_.join();
  sd_bus_detach_event(bus_);
  sd_bus_flush_close_unref(bus_);
  sd_event_unref(loop_);
  ::close(stopFd_);
}

std::vector<NotifyCall> NotificationStandIn::notifications() const {
  std::lock_guard lock(mutex_);
  return notifications_;
}

std::vector<std::uint32_t> NotificationStandIn::closed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

bool NotificationStandIn::waitForNotifications(std::size_t n,
                                               std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return notifications_.size() >= n; });
}

}  // namespace gwtest
