// The daemon's rows for managed bookmarks: a user's bookmark file read for root or the user
// themselves, and written for root. The caller is request.peer; every request goes through the
// peer rate limiter, since each one reads or writes a file.
#include "daemon/manager.h"
#include "daemon/routine_table.h"
#include "web/bookmarks/bookmark_service.h"

namespace gw::daemon {
namespace {

using ipc::Reply;
using ipc::Request;

std::uint32_t uidField(const Request& r) { return std::uint32_t(r.field("uid").integer); }

std::string_view userNameField(const Request& r) {
  std::span<const std::uint8_t> bytes = r.field("userName").bytes;
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

Reply readExistingBookmarks(Manager& m, const Request& r) {
  Reply reply;
  if (!m.allowPeer(r.peer.uid)) {
    reply.returnCode = bookmarks::kBookmarksRefused;
    return reply;
  }
  bookmarks::ServedBookmarks served =
      bookmarks::readBookmarksForPeer(r.peer.uid, uidField(r), userNameField(r));
  reply.returnCode = served.returnCode;
  reply.data = std::move(served.data);
  return reply;
}

// "first" carries the bookmarks (an XML property list), "second" the caller's authorization,
// which the socket's credentials make unnecessary here.
Reply writeBookmarks(Manager& m, const Request& r) {
  Reply reply;
  if (!m.allowPeer(r.peer.uid)) {
    reply.returnCode = bookmarks::kBookmarksRefused;
    return reply;
  }
  reply.returnCode = bookmarks::writeBookmarksForPeer(r.peer.uid, uidField(r), userNameField(r),
                                                      r.field("first").bytes);
  return reply;
}

constexpr RoutineHandler kRoutines[] = {
    {"_GWMIGLumewayReadExistingBookmarks", readExistingBookmarks},
    {"_GWMIGLumewayWriteBookmarks", writeBookmarks},
};

}  // namespace

std::span<const RoutineHandler> bookmarkRoutines() { return kRoutines; }

}  // namespace gw::daemon
