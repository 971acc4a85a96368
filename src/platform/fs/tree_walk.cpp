#include "platform/fs/tree_walk.h"

#include <fts.h>

#include <cerrno>
#include <cstring>

namespace gw::fs {
namespace {

// Owns one fts stream; closes it on every path.
class FtsStream {
 public:
  FtsStream(const std::string& root, const WalkOptions& options) {
    char* paths[] = {const_cast<char*>(root.c_str()), nullptr};
    int flags = FTS_PHYSICAL | FTS_NOCHDIR;
    if (options.sameFileSystem) flags |= FTS_XDEV;
    fts_ = ::fts_open(paths, flags, options.sortByName ? &byName : nullptr);
  }
  FtsStream(const FtsStream&) = delete;
  FtsStream& operator=(const FtsStream&) = delete;
  ~FtsStream() {
    if (fts_) ::fts_close(fts_);
  }
  FTS* get() const { return fts_; }

 private:
  static int byName(const FTSENT** a, const FTSENT** b) {
    return std::strcmp((*a)->fts_name, (*b)->fts_name);
  }
  FTS* fts_ = nullptr;
};

EntryType typeOf(const FTSENT* e) {
  switch (e->fts_info) {
    case FTS_D:
    case FTS_DP:
      return EntryType::Folder;
    case FTS_F:
      return EntryType::File;
    case FTS_SL:
    case FTS_SLNONE:
      return EntryType::SymbolicLink;
    case FTS_DEFAULT:
      return EntryType::Other;
    default:  // FTS_DNR, FTS_ERR, FTS_NS, FTS_DC
      return EntryType::Error;
  }
}

}  // namespace

bool walkFileTree(const std::string& root, const WalkOptions& options, const WalkVisitor& visit,
                  std::string* error) {
  if (root.empty()) {
    if (error) *error = "cannot walk an empty path";
    return false;
  }
  FtsStream stream(root, options);
  if (!stream.get()) {
    if (error) *error = "cannot walk " + root + ": " + std::strerror(errno);
    return false;
  }
  for (;;) {
    errno = 0;
    FTSENT* e = ::fts_read(stream.get());
    if (!e) {
      if (errno == 0) return true;
      if (error) *error = "cannot walk " + root + ": " + std::strerror(errno);
      return false;
    }
    WalkEntry entry;
    entry.path = std::string_view(e->fts_path, e->fts_pathlen);
    entry.name = std::string_view(e->fts_name, e->fts_namelen);
    entry.depth = int(e->fts_level);
    entry.type = typeOf(e);
    entry.postOrder = e->fts_info == FTS_DP;
    if (entry.type == EntryType::Error) {
      entry.error = e->fts_info == FTS_DC ? ELOOP : e->fts_errno;
    } else {
      entry.status = e->fts_statp;
    }
    if (e->fts_info == FTS_D && !options.preOrder) continue;
    if (e->fts_info == FTS_DP && !options.postOrder) continue;
    switch (visit(entry)) {
      case WalkAction::Continue:
        break;
      case WalkAction::SkipContents:
        if (e->fts_info == FTS_D) ::fts_set(stream.get(), e, FTS_SKIP);
        break;
      case WalkAction::Stop:
        return true;
    }
  }
}

}  // namespace gw::fs
