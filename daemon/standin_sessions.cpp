// Stand-ins for the session monitor and the end actions until the real ones land: a utmpx reader
// watched with inotify, and actions that only log. Removed when daemon/sessions and daemon/enforce
// are merged.
#include <gatewise/log.h>
#include <pwd.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <utmpx.h>

#include <map>
#include <set>

#include "daemon/enforce/session_actions.h"
#include "daemon/sessions/session_monitor.h"
#include "platform/fs/root.h"
#include "platform/fs/unique_fd.h"

namespace gw::daemon {
namespace {

class UtmpMonitor final : public SessionMonitor {
 public:
  UtmpMonitor(sd_event* loop, std::string path, Listener listener)
      : path_(std::move(path)), listener_(std::move(listener)) {
    inotify_ = fs::UniqueFd(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    std::string folder = path_.substr(0, path_.rfind('/'));
    if (inotify_) {
      ::inotify_add_watch(inotify_.get(), folder.c_str(),
                          IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MODIFY);
      sd_event_add_io(loop, &source_, inotify_.get(), EPOLLIN, &UtmpMonitor::onChange, this);
    }
    counts_ = read();
  }
  ~UtmpMonitor() override { sd_event_source_disable_unref(source_); }

  UserSessions sessionsOf(uid_t uid) const override {
    auto it = counts_.find(uid);
    bool in = it != counts_.end() && it->second > 0;
    return {in, in};
  }
  std::vector<uid_t> users() const override {
    std::vector<uid_t> out;
    for (const auto& [uid, n] : counts_) out.push_back(uid);
    return out;
  }

 private:
  static int onChange(sd_event_source*, int fd, uint32_t, void* self) {
    char buffer[4096];
    while (::read(fd, buffer, sizeof buffer) > 0) {
    }
    auto* monitor = static_cast<UtmpMonitor*>(self);
    std::map<uid_t, int> now = monitor->read();
    std::set<uid_t> changed;
    for (const auto& [uid, n] : now) {
      auto it = monitor->counts_.find(uid);
      if (it == monitor->counts_.end() || it->second != n) changed.insert(uid);
    }
    for (const auto& [uid, n] : monitor->counts_) {
      if (!now.count(uid)) changed.insert(uid);
    }
    monitor->counts_ = std::move(now);
    for (uid_t uid : changed) monitor->listener_(uid);
    return 0;
  }

  std::map<uid_t, int> read() const {
    std::map<uid_t, int> counts;
    if (::access(path_.c_str(), R_OK) != 0) return counts;
    ::utmpxname(path_.c_str());
    ::setutxent();
    while (utmpx* entry = ::getutxent()) {
      if (entry->ut_type != USER_PROCESS) continue;
      std::string name(entry->ut_user, strnlen(entry->ut_user, sizeof entry->ut_user));
      passwd pw{}, *found = nullptr;
      char buffer[4096];
      if (::getpwnam_r(name.c_str(), &pw, buffer, sizeof buffer, &found) == 0 && found) {
        ++counts[found->pw_uid];
      }
    }
    ::endutxent();
    return counts;
  }

  std::string path_;
  Listener listener_;
  fs::UniqueFd inotify_;
  sd_event_source* source_ = nullptr;
  std::map<uid_t, int> counts_;
};

class LoggingActions final : public SessionActions {
 public:
  bool logout(uid_t uid) override {
    GW_LOG(0, "Logging out uid %d", int(uid));
    return true;
  }
  bool lock(uid_t uid) override {
    GW_LOG(0, "Locking the sessions of uid %d", int(uid));
    return true;
  }
};

}  // namespace

std::unique_ptr<SessionMonitor> makeSessionMonitor(sd_event* loop, sd_bus*,
                                                   SessionMonitor::Listener listener) {
  return makeUtmpMonitor(loop, fs::rootedPath("/run/utmp"), std::move(listener));
}

std::unique_ptr<SessionMonitor> makeUtmpMonitor(sd_event* loop, std::string utmpPath,
                                                SessionMonitor::Listener listener) {
  return std::make_unique<UtmpMonitor>(loop, std::move(utmpPath), std::move(listener));
}

EndAction endActionFromPreference(const plist::Value& value) {
  const std::string* text = value.ifString();
  if (text && *text == "lock") return EndAction::Lock;
  if (text && *text == "none") return EndAction::None;
  if (text && *text != "logout") GW_LOG(0, "*** Unknown endAction \"%s\"", text->c_str());
  return EndAction::Logout;
}

std::unique_ptr<SessionActions> makeSessionActions(sd_event*, sd_bus*, std::chrono::seconds) {
  return std::make_unique<LoggingActions>();
}

}  // namespace gw::daemon
