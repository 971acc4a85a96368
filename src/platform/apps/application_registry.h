// The application registry of this platform: which programs are installed.
//
// Two sources, in this order:
//  1. XDG desktop entries: "applications/*.desktop" (subfolders included, names in byte order) in
//     the user's data folder ($XDG_DATA_HOME, else $HOME/.local/share, taken as it is, like the
//     user's keychain) and then in the system data folders ($XDG_DATA_DIRS, else
//     "/usr/local/share:/usr/share", each below the system root). An entry counts when it parses
//     (desktop_entry.h), is of type "Application", is not "Hidden", has a "Name" and an "Exec"
//     whose program is found: an absolute path, or a name looked up in $PATH (else
//     "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"), each folder below the system
//     root; symbolic links at the program are followed (40 at most, absolute targets below the
//     system root, never out of it) to a regular file with an execute bit. The first entry with a
//     given desktop file id ("kde/app.desktop" -> "kde-app") or a given program wins.
//  2. Bundle folders ending in ".app" below <root>/Applications (not inside one another, at most 8
//     folders deep).
// Anything else is skipped with a log line: broken entries, missing or unresolvable Exec, link
// loops, unreadable folders, files over 256 KiB. Stateless; any thread; nothing throws.
#pragma once

#include <gatewise/plist.h>

#include <optional>
#include <string>
#include <vector>

namespace gw::registry {

struct RegisteredApplication {
  std::string path;  // the program file, or the bundle folder
  // For a desktop entry: "CFBundleName" (its Name), "CFBundleIdentifier" (its desktop file id),
  // "CFBundleExecutable"; and the localized "CFBundleName" for the process's languages. Both
  // nullptr for a bundle folder, whose own information is read from the bundle.
  plist::DictionaryRef infoDictionary;
  plist::DictionaryRef localizedInfoDictionary;
};

std::vector<RegisteredApplication> copyAllApplications();

// The folders searched for desktop entries, in order ("<data folder>/applications").
std::vector<std::string> desktopEntryFolders();

// The file a desktop entry's program word names (see above); nullopt with *error when none.
std::optional<std::string> resolveProgram(const std::string& word, std::string* error);

}  // namespace gw::registry
