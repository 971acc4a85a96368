#include "notification_tracker.h"

#include <algorithm>

namespace gw::agent {

std::vector<NotificationTracker::Planned> NotificationTracker::plan(
    const std::vector<StatusEntry>& current) {
  std::vector<Planned> planned;
  std::set<std::string> keys;
  for (const StatusEntry& entry : current) {
    keys.insert(entry.key);
    if (seenKeys_.contains(entry.key)) continue;
    seenKeys_.insert(entry.key);
    Planned next{entry, 0};
    // A warning's moment has passed once anything newer about the same thing arrives.
    auto previous = bySubject_.find(entry.subject);
    if (previous != bySubject_.end() && previous->second.warning)
      next.replaces = previous->second.id;
    planned.push_back(std::move(next));
  }
  // Items the daemon no longer lists are done with.
  std::erase_if(seenKeys_, [&](const std::string& key) { return !keys.contains(key); });
  return planned;
}

void NotificationTracker::shown(const StatusEntry& entry, std::uint32_t notificationId) {
  bySubject_[entry.subject] = Shown{notificationId, entry.warning, ++clock_};
  if (bySubject_.size() > kMaxSubjects) {
    auto oldest = std::min_element(bySubject_.begin(), bySubject_.end(),
                                   [](auto& a, auto& b) { return a.second.age < b.second.age; });
    bySubject_.erase(oldest);
  }
}

void NotificationTracker::failed(const StatusEntry& entry) { seenKeys_.erase(entry.key); }

}  // namespace gw::agent
