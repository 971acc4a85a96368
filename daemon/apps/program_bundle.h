// What the daemon knows of a program being launched: the bundle folder it belongs to and that
// bundle's identifier, read from the bundle's "Contents/Info.plist" (as root, without following a
// link in the last component, bounded).
//
// A path names a bundle when it is the bundle folder itself (it holds "Contents/Info.plist") or the
// bundle's executable ("<bundle>/Contents/MacOS/<name>"). Anything else is a bare program without
// a bundle identifier: bare programs are recognised by their path alone, so copying or renaming one
// does not make it pass as an allowed one.
#pragma once

#include <string>

namespace gw::daemon {

inline constexpr std::size_t kMaxInfoPlistSize = 1 << 20;

struct ProgramBundle {
  std::string folder;    // "" for a bare program
  std::string bundleID;  // "" when there is none
  std::string name;      // the bundle's or the file's name, for the administrator
};

ProgramBundle programBundleOf(const std::string& path);

}  // namespace gw::daemon
