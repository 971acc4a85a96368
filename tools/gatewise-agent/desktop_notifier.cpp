#include "desktop_notifier.h"

#include <gatewise/log.h>

#include <cstring>
#include <utility>

namespace gw::agent {
namespace {

constexpr std::uint64_t kCallTimeoutUsec = 10'000'000;

// The reply handler finds its call through a token, so that a notifier destroyed while a call is
// pending is never touched by a late reply.
struct ReplyContext {
  DesktopNotifier* notifier;
  std::uint64_t token;
};

}  // namespace

std::unique_ptr<DesktopNotifier> DesktopNotifier::open(sd_event* loop, std::string* error) {
  sd_bus* bus = nullptr;
  int r = sd_bus_open_user(&bus);
  if (r >= 0) r = sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL);
  if (r >= 0) r = sd_bus_set_exit_on_disconnect(bus, 1);
  if (r < 0) {
    if (error) *error = std::string("cannot reach the session bus: ") + std::strerror(-r);
    sd_bus_flush_close_unref(bus);
    return nullptr;
  }
  return std::unique_ptr<DesktopNotifier>(new DesktopNotifier(bus));
}

DesktopNotifier::~DesktopNotifier() {
  for (auto& [token, pending] : pending_) {
    // Unreferencing the slot cancels the call; its context goes with it.
    delete static_cast<ReplyContext*>(sd_bus_slot_get_userdata(pending.slot));
    sd_bus_slot_unref(pending.slot);
  }
  sd_bus_detach_event(bus_);
  sd_bus_flush_close_unref(bus_);
}

bool DesktopNotifier::notify(const DesktopNotification& notification, Completion done) {
  sd_bus_message* call = nullptr;
  int r = sd_bus_message_new_method_call(bus_, &call, "org.freedesktop.Notifications",
                                         "/org/freedesktop/Notifications",
                                         "org.freedesktop.Notifications", "Notify");
  if (r >= 0)
    r = sd_bus_message_append(call, "susss", kAppName, notification.replaces, "",
                              notification.summary.c_str(), notification.body.c_str());
  if (r >= 0) r = sd_bus_message_append(call, "as", 0);
  if (r >= 0) r = sd_bus_message_append(call, "a{sv}", 1, "urgency", "y", notification.urgency);
  if (r >= 0) r = sd_bus_message_append(call, "i", notification.expireTimeoutMs);
  auto* context = new ReplyContext{this, nextToken_};
  sd_bus_slot* slot = nullptr;
  if (r >= 0) r = sd_bus_call_async(bus_, &slot, call, onReply, context, kCallTimeoutUsec);
  sd_bus_message_unref(call);
  if (r < 0) {
    delete context;
    GW_LOG(0, "*** Cannot send a desktop notification: %s", std::strerror(-r));
    return false;
  }
  pending_.emplace(nextToken_++, Pending{slot, std::move(done)});
  return true;
}

int DesktopNotifier::onReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  auto* context = static_cast<ReplyContext*>(userdata);
  DesktopNotifier* self = context->notifier;
  auto found = self->pending_.find(context->token);
  delete context;
  if (found == self->pending_.end()) return 0;
  Pending pending = std::move(found->second);
  self->pending_.erase(found);
  std::uint32_t id = 0;
  if (const sd_bus_error* failure = sd_bus_message_get_error(reply)) {
    GW_LOG(0, "*** The notification server refused a notification: %s",
           failure->message ? failure->message : failure->name);
  } else if (sd_bus_message_read(reply, "u", &id) < 0) {
    id = 0;
  }
  sd_bus_slot_unref(pending.slot);
  if (pending.done) pending.done(id);
  return 0;
}

}  // namespace gw::agent
