// The session agent: shows the current user's status items as desktop notifications.
//
// One Agent owns everything the agent watches, all on one sd-event loop (the thread's default
// loop, which the library's notification center uses too): the session-bus notifier, observers
// of "GatewiseLoginStatusChangedNotification" (for this user) and of the managed-settings change
// notification, and one real-time timer armed for the next fetch (see refresh_schedule.h). Each
// fetch hands the list to the tracker and sends a notification for every entry not shown yet:
// summary = title, body = message, urgency normal for warnings and critical for alerts; a warning
// disappears when its moment has come, an alert stays until dismissed.
//
// A user without limits simply has an empty list: the agent stays, idle but for a fetch a minute,
// so that limits added later take effect without a new login. Made and used on one thread.
#pragma once

#include <gatewise/notifications.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "desktop_notifier.h"
#include "notification_tracker.h"
#include "refresh_schedule.h"
#include "status_entry.h"

namespace gw::agent {

inline constexpr const char* kLoginStatusChangedNotification =
    "GatewiseLoginStatusChangedNotification";

struct AgentOptions {
  std::string userName;
  std::function<std::optional<std::vector<StatusEntry>>()> fetch = fetchStatusEntries;
  RefreshPolicy policy{};
};

class Agent {
 public:
  // nullptr (reason in *error) when the session bus or the timer cannot be set up. The first fetch
  // happens on the loop's first turn.
  static std::unique_ptr<Agent> create(sd_event* loop, AgentOptions options, std::string* error);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Asks for a fetch as soon as the rate limit allows.
  void requestRefresh();
  std::size_t fetchCount() const { return fetches_; }
  bool refreshRequested() const { return requestedAt_.has_value(); }
  std::size_t notificationsInFlight() const { return notifier_->inFlight(); }

 private:
  Agent(sd_event* loop, AgentOptions options);
  void fetch();
  void show(const NotificationTracker::Planned& planned, double now);
  void armTimer();
  static int onTimer(sd_event_source* source, std::uint64_t usec, void* userdata);

  sd_event* loop_;
  AgentOptions options_;
  std::unique_ptr<DesktopNotifier> notifier_;
  NotificationTracker tracker_;
  sd_event_source* timer_ = nullptr;
  std::vector<notify::ObserverID> observers_;
  std::vector<double> expirations_;
  double lastFetch_ = 0;
  std::optional<double> requestedAt_;
  std::size_t fetches_ = 0;
};

}  // namespace gw::agent
