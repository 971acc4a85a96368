// Standard-error diagnostics of the content-filter functions.
#include <cstdio>
#include <mutex>

#include "web/content_filter.h"

namespace gw::web {

void writeFilterMessage(std::string_view text) {
  // One message stays whole even when several threads evaluate pages at once.
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

}  // namespace gw::web
