#include "agent.h"

#include <gatewise/core.h>
#include <gatewise/log.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace gw::agent {
namespace {

double nowUnix() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

std::uint64_t toUsec(double unixSeconds) {
  return unixSeconds <= 0 ? 1 : std::uint64_t(std::llround(unixSeconds * 1e6));
}

// A warning is gone when its moment has come; bounded so that a far-off or past date still
// shows the warning for a while.
std::int32_t expireTimeoutFor(const StatusEntry& entry, double now) {
  if (!entry.warning) return 0;
  double remaining = std::clamp(entry.expiration - now, 10.0, 600.0);
  return std::int32_t(remaining * 1000);
}

}  // namespace

Agent::Agent(sd_event* loop, AgentOptions options)
    : loop_(sd_event_ref(loop)), options_(std::move(options)) {}

std::unique_ptr<Agent> Agent::create(sd_event* loop, AgentOptions options, std::string* error) {
  std::unique_ptr<Agent> agent(new Agent(loop, std::move(options)));
  agent->notifier_ = DesktopNotifier::open(loop, error);
  if (!agent->notifier_) return nullptr;
  int r = sd_event_add_time(loop, &agent->timer_, CLOCK_REALTIME, 1, 100'000, onTimer, agent.get());
  if (r < 0) {
    if (error) *error = std::string("cannot arm a timer: ") + std::strerror(-r);
    return nullptr;
  }
  // Posted when a user's login status changes (an administrator's override, for one).
  Agent* raw = agent.get();
  std::string user = agent->options_.userName;
  auto loginStatus = notify::addObserver(
      kLoginStatusChangedNotification, "", [raw, user](const notify::Notification& n) {
        const plist::Value* name = n.userInfo ? n.userInfo->find("userName") : nullptr;
        if (!name || !name->ifString() || *name->ifString() == user) raw->requestRefresh();
      });
  auto settings =
      notify::addObserver(kGWManagementStatusChangedNotification, "",
                          [raw](const notify::Notification&) { raw->requestRefresh(); });
  // Without the system bus the agent still works, on its timer alone.
  if (loginStatus) agent->observers_.push_back(*loginStatus);
  if (settings) agent->observers_.push_back(*settings);
  return agent;
}

Agent::~Agent() {
  for (notify::ObserverID observer : observers_) notify::removeObserver(observer);
  sd_event_source_disable_unref(timer_);
  notifier_.reset();
  sd_event_unref(loop_);
}

void Agent::requestRefresh() {
  if (!requestedAt_) requestedAt_ = nowUnix();
  armTimer();
}

void Agent::armTimer() {
  double next = nextFetchTime(options_.policy, lastFetch_, requestedAt_, expirations_);
  sd_event_source_set_time(timer_, toUsec(next));
  sd_event_source_set_enabled(timer_, SD_EVENT_ONESHOT);
}

int Agent::onTimer(sd_event_source*, std::uint64_t, void* userdata) {
  static_cast<Agent*>(userdata)->fetch();
  return 0;
}

void Agent::fetch() {
  ++fetches_;
  requestedAt_.reset();
  std::optional<std::vector<StatusEntry>> entries = options_.fetch();
  double now = nowUnix();
  lastFetch_ = now;
  expirations_.clear();
  if (entries) {
    for (const StatusEntry& entry : *entries) expirations_.push_back(entry.expiration);
    for (const NotificationTracker::Planned& planned : tracker_.plan(*entries)) show(planned, now);
  }
  armTimer();
}

void Agent::show(const NotificationTracker::Planned& planned, double now) {
  DesktopNotification notification{
      .summary = planned.entry.title,
      .body = planned.entry.body,
      .urgency = std::uint8_t(planned.entry.warning ? 1 : 2),
      .expireTimeoutMs = expireTimeoutFor(planned.entry, now),
      .replaces = planned.replaces,
  };
  // The notifier belongs to this agent and drops pending completions when it goes.
  StatusEntry entry = planned.entry;
  bool queued = notifier_->notify(notification, [this, entry](std::uint32_t id) {
    if (id == 0) {
      tracker_.failed(entry);
    } else {
      tracker_.shown(entry, id);
    }
  });
  // A notification that cannot even be built (text the bus refuses) would fail the same way every
  // time: it counts as shown rather than being retried.
  if (!queued) tracker_.shown(planned.entry, 0);
}

}  // namespace gw::agent
