// File-tree walks over fts(3).
//
// walkFileTree visits a folder and everything below it, physically: symbolic links are reported
// as links and never followed, so a walk cannot leave the tree or loop. It never changes the
// process's current folder (FTS_NOCHDIR), so walks on several threads at once are safe. Each entry
// is handed to a callback, which can skip a folder's contents or stop the walk. An entry that
// cannot be read (an unreadable folder, an entry that vanished) is reported as an Error entry with
// its errno, and the walk goes on. The WalkEntry and what it points to live only during the call.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>
#include <string_view>

namespace gw::fs {

enum class EntryType { Folder, File, SymbolicLink, Other, Error };

struct WalkEntry {
  std::string_view path;  // the root as given, joined with the names below it
  std::string_view name;  // the last component
  int depth = 0;          // 0 for the root
  EntryType type = EntryType::Error;
  bool postOrder = false;               // a folder seen again after everything below it
  const struct stat* status = nullptr;  // lstat of the entry; nullptr for Error entries
  int error = 0;                        // the errno of an Error entry, else 0
};

enum class WalkAction { Continue, SkipContents, Stop };

struct WalkOptions {
  bool preOrder = true;         // visit folders before their contents
  bool postOrder = false;       // visit folders again after their contents
  bool sortByName = true;       // siblings in byte order of their names, for repeatable walks
  bool sameFileSystem = false;  // do not descend into other mounted file systems
};

using WalkVisitor = std::function<WalkAction(const WalkEntry&)>;

// Returns false with *error set when the walk could not start or fts itself failed; true otherwise,
// including when entries were reported as Error or the visitor stopped the walk.
bool walkFileTree(const std::string& root, const WalkOptions& options, const WalkVisitor& visit,
                  std::string* error = nullptr);

}  // namespace gw::fs
