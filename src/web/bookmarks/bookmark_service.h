// The daemon's side of the managed bookmarks: a user's bookmark file read for root or for the user
// themselves, and written for root only.
//
// The caller is the uid the socket reports, never a field of the message. The request names the
// user twice (uid and short name); both must name the same account. Files and requests are bounded
// by kMaxServedBookmarksSize. Each refusal or failure is logged (the caller rate-limits the
// daemon's log by wrapping calls in its peer limiter) and answered with a non-zero return code;
// nothing throws. Runs on the daemon's loop thread: it only reads and writes local files.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace gw::bookmarks {

inline constexpr std::size_t kMaxServedBookmarksSize = std::size_t(32) << 20;

// Return codes (Mach's own values for the same meanings).
inline constexpr std::int32_t kBookmarksRefused = 2;     // the caller may not do this
inline constexpr std::int32_t kBookmarksBadRequest = 4;  // unknown user, names disagree, bad plist
inline constexpr std::int32_t kBookmarksFailed = 5;      // no file, or it could not be written

struct ServedBookmarks {
  std::int32_t returnCode = 0;
  std::vector<std::uint8_t> data;  // the file's bytes (a dictionary, XML or binary) on success
};

ServedBookmarks readBookmarksForPeer(uid_t peer, std::uint32_t uid, std::string_view userName);
std::int32_t writeBookmarksForPeer(uid_t peer, std::uint32_t uid, std::string_view userName,
                                   std::span<const std::uint8_t> bookmarks);

}  // namespace gw::bookmarks
