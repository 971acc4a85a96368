// Which status entries the agent has shown, so that each item is shown once and a later warning
// about the same thing replaces the notification of the earlier one.
//
// The agent hands every fresh list to plan(), which answers the entries not shown yet with the
// notification each should replace (0: a new one). Entries count as shown from then on; a failed
// send is handed back with failed() so that the next list shows it again. Keys of items that have
// left the daemon's list are forgotten, and at most kMaxSubjects notifications are remembered, so
// memory stays bounded whatever the daemon sends. Not thread-safe: the agent's thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "status_entry.h"

namespace gw::agent {

class NotificationTracker {
 public:
  static constexpr std::size_t kMaxSubjects = 64;

  struct Planned {
    StatusEntry entry;
    std::uint32_t replaces = 0;
  };

  std::vector<Planned> plan(const std::vector<StatusEntry>& current);
  // The notification server gave the entry this id.
  void shown(const StatusEntry& entry, std::uint32_t notificationId);
  // The entry could not be shown: the next list tries again.
  void failed(const StatusEntry& entry);

 private:
  struct Shown {
    std::uint32_t id = 0;
    bool warning = false;
    std::uint64_t age = 0;
  };
  std::set<std::string> seenKeys_;
  std::map<std::string, Shown> bySubject_;
  std::uint64_t clock_ = 0;
};

}  // namespace gw::agent
