// The session monitor without logind: the utmp file, re-read whenever its folder reports a change
// to it, and compared with the previous reading per uid.
#include <gatewise/log.h>
#include <sys/inotify.h>

#include <cstring>
#include <set>

#include "daemon/sessions/session_monitor.h"
#include "daemon/sessions/utmp_records.h"
#include "platform/fs/root.h"

namespace gw::daemon {
namespace {

constexpr std::uint32_t kFolderEvents =
    IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_ONLYDIR;

class UtmpMonitor final : public SessionMonitor {
 public:
  UtmpMonitor(sd_event* loop, std::string path, Listener listener)
      : path_(std::move(path)), listener_(std::move(listener)) {
    std::string::size_type slash = path_.rfind('/');
    std::string folder = slash == std::string::npos ? "." : path_.substr(0, slash ? slash : 1);
    fileName_ = slash == std::string::npos ? path_ : path_.substr(slash + 1);
    // Watch first, then read, so that no change between the two goes unseen.
    if (int r =
            sd_event_add_inotify(loop, &watch_, folder.c_str(), kFolderEvents, onFolderEvent, this);
        r < 0) {
      GW_LOG(0, "*** cannot watch %s: %s; logins are read once", folder, std::strerror(-r));
      watch_ = nullptr;
    }
    logins_ = loginsInUtmpFile(path_);
  }
  ~UtmpMonitor() override { sd_event_source_disable_unref(watch_); }
  UtmpMonitor(const UtmpMonitor&) = delete;
  UtmpMonitor& operator=(const UtmpMonitor&) = delete;

  UserSessions sessionsOf(uid_t uid) const override {
    bool in = logins_.contains(uid);
    return {.loggedIn = in, .counting = in};
  }

  std::vector<uid_t> users() const override {
    std::vector<uid_t> uids;
    for (const auto& [uid, count] : logins_) uids.push_back(uid);
    return uids;
  }

 private:
  static int onFolderEvent(sd_event_source*, const struct inotify_event* event, void* userdata) {
    auto* self = static_cast<UtmpMonitor*>(userdata);
    // An overflowed queue may have dropped the event that mattered: read anyway.
    bool aboutTheFile =
        (event->mask & IN_Q_OVERFLOW) || (event->len > 0 && self->fileName_ == event->name);
    if (aboutTheFile) self->reread();
    return 0;
  }

  void reread() {
    std::map<uid_t, unsigned> now = loginsInUtmpFile(path_);
    std::set<uid_t> changed;
    for (const auto& [uid, count] : now) {
      auto before = logins_.find(uid);
      if (before == logins_.end() || before->second != count) changed.insert(uid);
    }
    for (const auto& [uid, count] : logins_) {
      if (!now.contains(uid)) changed.insert(uid);
    }
    logins_ = std::move(now);
    for (uid_t uid : changed) listener_(uid);
  }

  std::string path_;
  std::string fileName_;
  Listener listener_;
  sd_event_source* watch_ = nullptr;
  std::map<uid_t, unsigned> logins_;
};

}  // namespace

std::unique_ptr<SessionMonitor> makeUtmpMonitor(sd_event* loop, std::string utmpPath,
                                                SessionMonitor::Listener listener) {
  if (utmpPath.empty()) utmpPath = fs::rootedPath("/run/utmp");
  return std::make_unique<UtmpMonitor>(loop, std::move(utmpPath), std::move(listener));
}

}  // namespace gw::daemon
