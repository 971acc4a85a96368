// Whether any user's settings files may have changed, answered without touching the files: one
// inotify descriptor watches the folders that hold them, so that a login question can trust an
// earlier decision after a single non-blocking read.
//
// watch() takes the files a decision was made from and watches the folder of each, or, while that
// folder does not exist, the nearest one above it that does (its creation is then a change, and
// the next watch() goes deeper). Links are not followed. Any event in a watched folder, a watched
// folder itself moved or removed, or a lost event counts as a change of everything: changes are
// rare and the next decision simply reads again. What is not seen: a folder ABOVE a watched one
// swapped for another tree, which only root can do; callers bound how long they trust a decision.
//
// One thread (the daemon's loop). The descriptor is closed by the destructor.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/fs/unique_fd.h"

namespace gw::daemon {

class SettingsWatch {
 public:
  SettingsWatch();

  // Watches the folders of files; false when a watch cannot be made (no inotify, out of watches):
  // nothing about these files may be trusted then.
  bool watch(std::span<const std::string> files);
  // Reads the pending events (one read); true when anything may have changed since the last call.
  // Every change also moves generation() on.
  bool changed();
  // Moves on with every change: a decision made in one generation holds only within it.
  std::uint64_t generation() const { return generation_; }

 private:
  fs::UniqueFd fd_;
  std::uint64_t generation_ = 0;
};

}  // namespace gw::daemon
