// A status item of the daemon as the session agent shows it: what to say, how urgently, and how to
// recognise it again in the next list.
//
// fetchStatusEntries() is the agent's one way to the daemon: it asks for the user's status items
// (GWGetStatusItems) and turns each into an entry. Items with nothing to say (an unknown status
// kind has no message) are left out. Call it on the agent's thread; it blocks for at most the
// routine's time-out (one second).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gw::agent {

struct StatusEntry {
  std::string key;      // this item: its id, else kind, status, name and expiration together
  std::string subject;  // what it is about (kind and name): a later warning replaces an earlier one
  std::string title;
  std::string body;
  double expiration = 0;  // Unix time
  bool warning = false;   // time is running out; otherwise an alert that something ends now
};

// nullopt when the daemon cannot be asked; otherwise the entries, possibly none.
std::optional<std::vector<StatusEntry>> fetchStatusEntries();

}  // namespace gw::agent
