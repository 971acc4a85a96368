#include "daemon/manager.h"

#include <dirent.h>
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <gatewise/notifications.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "daemon/decision/day.h"
#include "platform/fs/root.h"
#include "platform/prefs/host_preferences.h"

namespace gw::daemon {
namespace {

constexpr std::size_t kMaxTrackedUsers = 65536;
constexpr std::uint64_t kFlushIntervalMicroseconds = std::uint64_t(kFlushIntervalSeconds * 1e6);

plist::Date plus(plist::Date d, double seconds) {
  return plist::Date{d.secondsSinceReferenceDate + seconds};
}

const char* actionName(EndAction action) {
  switch (action) {
    case EndAction::Logout:
      return "logout";
    case EndAction::Lock:
      return "lock";
    case EndAction::None:
      return "none";
  }
  return "none";
}

}  // namespace

Manager::Manager(ManagerOptions options) : options_(std::move(options)) {}

std::unique_ptr<Manager> Manager::create(ManagerOptions options, std::string* error) {
  if (!options.clock) options.clock = std::make_shared<SystemClock>();
  std::unique_ptr<Manager> manager(new Manager(std::move(options)));
  if (!manager->start(error)) return nullptr;
  return manager;
}

bool Manager::start(std::string* error) {
  auto failed = [&](const std::string& what, int r) {
    if (error) *error = what + (r < 0 ? std::string(": ") + std::strerror(-r) : std::string());
    return false;
  };
  int r = sd_event_new(&loop_);
  if (r < 0) return failed("sd_event_new", r);

  std::unique_ptr<UsageStore> store = UsageStore::open(options_.databasePath, error);
  if (!store) return false;
  ledger_ = std::make_unique<UsageLedger>(std::move(store));
  std::string eventsError;
  std::unique_ptr<EventStore> eventStore = EventStore::open(options_.databasePath, &eventsError);
  if (!eventStore) GW_LOG(0, "*** No event store: %s", eventsError.c_str());
  events_ = std::make_unique<EventService>(std::move(eventStore));

  r = sd_event_add_time(loop_, &timer_, CLOCK_MONOTONIC, UINT64_MAX, 0, &Manager::onTimer, this);
  if (r < 0) return failed("timer", r);
  sd_event_source_set_enabled(timer_, SD_EVENT_OFF);
  watchClockChanges();
  apps_ = std::make_unique<AppLaunches>(*this);
  if (options_.serve) apps_->enforceIfConfigured();

  if (options_.serve) {
    sigset_t mask;
    sigemptyset(&mask);
    for (int s : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&mask, s);
    // sd-event reads these through a signalfd, which needs them blocked; the old mask comes back
    // when the manager goes, so programs started afterwards (tests run managers in-process) can
    // still be stopped.
    savedSignalMask_.emplace();
    sigprocmask(SIG_BLOCK, &mask, &*savedSignalMask_);
    for (int s : {SIGTERM, SIGINT, SIGHUP}) {
      sd_event_source* source = nullptr;
      if (sd_event_add_signal(loop_, &source, s, &Manager::onSignal, this) >= 0) {
        signals_.push_back(source);
      }
    }
  }

  // Sessions and end actions go through logind when it runs; without a system bus (tests, machines
  // without systemd) through utmp and signals.
  if (options_.serve && (!options_.makeMonitor || !options_.makeActions) &&
      sd_bus_open_system(&systemBus_) < 0) {
    systemBus_ = nullptr;
  }
  auto listener = [this](uid_t uid) { sessionsChanged(uid); };
  monitor_ = options_.makeMonitor ? options_.makeMonitor(loop_, listener)
                                  : makeSessionMonitor(loop_, systemBus_, listener);
  actions_ = options_.makeActions ? options_.makeActions(loop_)
                                  : makeSessionActions(loop_, systemBus_, std::chrono::seconds(60));

  if (options_.serve) {
    registerRoutines(dispatcher_, *this);
    if (options_.activatedListener) {
      server_ = ipc::MessageServer::adopt(std::move(options_.activatedListener),
                                          options_.socketPath, dispatcher_, {}, error);
    } else {
      server_ = ipc::MessageServer::listen(options_.socketPath, dispatcher_, {}, error);
    }
    if (!server_) return false;
    r = server_->attach(loop_);
    if (r < 0) return failed("attach", r);
  }

  trackManagedUsers();
  if (monitor_) {
    for (uid_t uid : monitor_->users()) {
      if (User* user = userFor(uid)) {
        UserSessions s = monitor_->sessionsOf(uid);
        user->counting = s.counting;
        user->countingSince = options_.clock->wallNow();
        user->monotonicSince = options_.clock->monotonicMicroseconds();
      }
    }
  }
  auto wanted = [this](uid_t uid) { return users_.count(uid) != 0; };
  auto changed = [this](uid_t uid) { programsChanged(uid); };
  programWatch_ = options_.serve && options_.watchPrograms
                      ? ProgramWatch::start(loop_, wanted, changed)
                      : std::make_unique<ProgramWatch>(wanted, changed);
  programTimes_ = std::make_unique<ProgramTimes>(
      *options_.clock, *programWatch_,
      options_.signalProgram ? options_.signalProgram : signalProgram, &ledger_->store());
  refresh();
  return true;
}

Manager::~Manager() {
  plist::Date now = options_.clock->wallNow();
  for (auto& [uid, user] : users_) book(user, now, limits_.limitFor(user.name));
  if (programTimes_) {
    programTimes_->bookAll(now);
    programTimes_->flush();
  }
  if (ledger_) ledger_->flush();
  server_.reset();
  monitor_.reset();
  actions_.reset();
  if (systemBus_) sd_bus_flush_close_unref(systemBus_);
  for (sd_event_source* s : signals_) sd_event_source_disable_unref(s);
  if (savedSignalMask_) sigprocmask(SIG_SETMASK, &*savedSignalMask_, nullptr);
  sd_event_source_disable_unref(timer_);
  sd_event_source_disable_unref(clockWatch_);
  sd_event_unref(loop_);
}

int Manager::run() {
  sd_notify(0, "READY=1");
  int r = sd_event_loop(loop_);
  if (r < 0) GW_LOG(0, "*** The event loop failed: %s", std::strerror(-r));
  sd_notify(0, "STOPPING=1");
  plist::Date now = options_.clock->wallNow();
  for (auto& [uid, user] : users_) book(user, now, limits_.limitFor(user.name));
  programTimes_->bookAll(now);
  programTimes_->flush();
  ledger_->flush();
  return r < 0 ? 1 : 0;
}

Manager::User* Manager::userFor(uid_t uid) {
  auto it = users_.find(uid);
  if (it != users_.end()) return &it->second;
  if (users_.size() >= kMaxTrackedUsers) return nullptr;
  std::optional<std::string> name = GetUserShortNameForUID(uid);
  if (!name || !fs::isSafeName(*name)) return nullptr;
  User user;
  user.uid = uid;
  user.name = *name;
  return &users_.emplace(uid, std::move(user)).first->second;
}

void Manager::trackManagedUsers() {
  std::string folder = GWManagedPreferencesFolder();
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (!fs::isSafeName(name) || name[0] == '.') continue;
    std::optional<std::string> file = GWManagedPreferencesFileForUser(name, kTimeLimitsDomain);
    if (!file || stampOf(*file).absent) continue;
    std::uint32_t uid = UIDForShortName(name);
    if (uid != 0xFFFFFFFF) userFor(uid_t(uid));
  }
  ::closedir(dir);
  // The programs of users tracked from now on were not followed so far.
  if (programWatch_ && users_.size() != programsFollowedFor_) programWatch_->rescan();
  programsFollowedFor_ = users_.size();
}

void Manager::sessionsChanged(uid_t uid) {
  User* user = userFor(uid);
  if (!user) return;
  plist::Date now = options_.clock->wallNow();
  book(*user, now, limits_.limitFor(user->name));
  UserSessions s = monitor_ ? monitor_->sessionsOf(uid) : UserSessions{};
  if (isManaged(uid)) events_->sessionsChanged(uid, s, now);
  if (s.counting && !user->counting) {
    user->countingSince = now;
    user->monotonicSince = options_.clock->monotonicMicroseconds();
    user->acted = false;  // a new stretch of use: the end is acted on again
  }
  user->counting = s.counting;
  GW_LOG(1, "Sessions of %s changed: %s", user->name.c_str(),
         s.counting ? "counting" : (s.loggedIn ? "idle" : "logged out"));
  followPrograms();
  update(*user, now);
  armTimer();
}

// Process events are followed only while a tracked user is logged in; with nobody there the daemon
// stays asleep.
void Manager::followPrograms() {
  if (!programWatch_) return;
  bool anyoneLoggedIn = false;
  for (const auto& [uid, user] : users_) {
    anyoneLoggedIn = anyoneLoggedIn || (monitor_ && monitor_->sessionsOf(uid).loggedIn);
  }
  programWatch_->setListening(anyoneLoggedIn);
}

void Manager::programsChanged(uid_t uid) {
  auto it = users_.find(uid);
  if (it == users_.end()) return;
  update(it->second, options_.clock->wallNow());
  armTimer();
}

void Manager::book(User& user, plist::Date now, const ComputerLimit* limit) {
  if (!user.counting) return;
  if (now > user.countingSince && limit) {
    ledger_->count(user.uid, user.countingSince, now, limit->curfews.get());
  }
  user.countingSince = now;  // also when the clock went back: nothing is counted twice
  user.monotonicSince = options_.clock->monotonicMicroseconds();
}

void Manager::clockJumped() {
  plist::Date now = options_.clock->wallNow();
  std::uint64_t monotonic = options_.clock->monotonicMicroseconds();
  for (auto& [uid, user] : users_) {
    if (!user.counting) continue;
    // The use before the jump is as long as the monotonic clock says, not the wall clock.
    double elapsed = double(monotonic - user.monotonicSince) / 1e6;
    if (const ComputerLimit* limit = limits_.limitFor(user.name)) {
      ledger_->count(uid, user.countingSince, plus(user.countingSince, elapsed),
                     limit->curfews.get());
    }
    user.countingSince = now;
    user.monotonicSince = monotonic;
  }
  if (programTimes_) programTimes_->clockJumped(now);
  GW_LOG(1, "The clock was set; deciding again");
  refresh();
}

Decision Manager::decisionFor(User& user, const ComputerLimit* limit, plist::Date now) {
  user.decidedLimit = limit;
  if (!limit) return {};
  Grant grant = overrides_.grantFor(user.name, dayKeyOf(now));
  user.decidedGrant = grant;
  uid_t uid = user.uid;
  UsageLookup usage = [this, uid](const std::string& day) { return ledger_->usageOn(uid, day); };
  return decide(limit, now, usage, grant);
}

Decision Manager::update(User& user, plist::Date now) {
  // Watch the user's files before reading them: a change from here on moves the generation.
  std::optional<std::string> limitsFile =
      GWManagedPreferencesFileForUser(user.name, kTimeLimitsDomain);
  std::optional<std::string> userFolder = GWFolderForUserName(user.name);
  user.decidedGeneration.reset();
  if (limitsFile && userFolder) {
    const std::string files[] = {*limitsFile, *userFolder + "/" + kOverridesFileName};
    if (settingsWatch_.watch(files)) {
      settingsWatch_.changed();
      user.decidedGeneration = settingsWatch_.generation();
    }
  }
  const ComputerLimit* limit = limits_.limitFor(user.name);
  book(user, now, limit);
  Decision decision = decisionFor(user, limit, now);
  bool allowed = decision.allowed();
  if (user.lastAllowed && *user.lastAllowed != allowed) {
    GW_LOG(1, "%s may %s log in", user.name.c_str(), allowed ? "now" : "no longer");
    if (options_.postLoginStatusChanged) {
      options_.postLoginStatusChanged(user.name);
    } else {
      auto info = plist::Dictionary::make();
      info->set("userName", user.name);
      notify::postNotification(kLoginStatusChangedNotification, "", info);
    }
  }
  user.lastAllowed = allowed;
  if (allowed) {
    user.acted = false;
  } else if (user.counting && !user.acted) {
    user.acted = true;
    endTime(user, decision);
  }

  // When could this user's answer change next?
  std::optional<plist::Date> wake;
  auto consider = [&](std::optional<plist::Date> at) {
    if (at && (!wake || *at < *wake)) wake = at;
  };
  user.limited = limit != nullptr;
  if (limit) {
    if (!allowed) {
      consider(decision.nextAllowed);
      consider(startOfNextDay(now));
    } else if (user.counting) {
      consider(decision.end);
    } else {
      if (limit->curfews) consider(limit->curfews->nextCurfewDateAfterDate(now));
      consider(startOfNextDay(now));
    }
  }
  if (programTimes_) consider(programTimes_->update(user.uid, user.name, user.counting, now));
  if (wake && !(*wake > now)) wake = plus(now, 1);
  user.wakeAt = wake;
  user.decision = decision;
  user.decidedAt = now;
  user.decidedMonotonic = options_.clock->monotonicMicroseconds();
  return decision;
}

// What a decision is made from (the user's files, today's usage and grant) holds until the next
// moment the decision could change (the user's wake), as long as the user is not using the
// computer (nothing is booked), the clock did not go back, and none of the user's files changed.
// However sure that looks, everything is read again after a second.
std::optional<Decision> Manager::reusableDecision(const User& user, plist::Date now) {
  constexpr std::uint64_t kLongestReuseMicroseconds = 1000000;
  if (!user.decision || user.counting || !user.decidedGeneration) return std::nullopt;
  if (now < user.decidedAt || (user.wakeAt && !(now < *user.wakeAt))) return std::nullopt;
  if (options_.clock->monotonicMicroseconds() - user.decidedMonotonic >=
      kLongestReuseMicroseconds) {
    return std::nullopt;
  }
  // One look at the watch per read generation of the server does: every request of a generation
  // was read whole before the first of them is handled, so after every change made before it.
  if (!server_ || watchReadFor_ != server_->readGeneration()) {
    settingsWatch_.changed();
    if (server_) watchReadFor_ = server_->readGeneration();
  }
  if (*user.decidedGeneration != settingsWatch_.generation()) return std::nullopt;
  // A refusal lasts until a fixed moment, a curfew cuts use off at one, no limit has no end: the
  // same answer at any moment before the wake. Time left to an allowance counts from now.
  const Decision& last = *user.decision;
  if (!last.allowed() || !last.end || last.endCause == EndCause::Curfew) return last;
  uid_t uid = user.uid;
  UsageLookup usage = [this, uid](const std::string& day) { return ledger_->usageOn(uid, day); };
  return decide(user.decidedLimit, now, usage, user.decidedGrant);
}

void Manager::endTime(User& user, const Decision& decision) {
  std::optional<plist::Value> stored = prefs::copyHostValue(kHostDomain, "endAction");
  EndAction action = endActionFromPreference(stored ? *stored : plist::Value());
  const char* why = decision.reason == kGWLoginCurfew ? "a curfew began" : "the allowance ran out";
  GW_LOG(0, "Computer time of %s is over (%s); end action: %s", user.name.c_str(), why,
         actionName(action));
  recordEvent({std::string(kEventTimeEnded),
               user.uid,
               0,
               {{"reason", plist::Value(std::int64_t(decision.reason))},
                {"action", plist::Value(std::string(actionName(action)))}}});
  ++actionsTaken_[user.uid];
  if (!actions_) return;
  bool done = true;
  if (action == EndAction::Logout) done = actions_->logout(user.uid);
  if (action == EndAction::Lock) done = actions_->lock(user.uid);
  if (!done) GW_LOG(0, "*** Could not %s %s", actionName(action), user.name.c_str());
}

void Manager::recordEvent(Event event) {
  // Only managed users' lives are recorded: a parent's own browsing or logins are nobody's record.
  if (!isManaged(event.uid)) return;
  if (event.time == 0) event.time = options_.clock->wallNow().unixTime();
  events_->record(event);
}

bool Manager::isManaged(uid_t uid) const {
  if (uid == 0) return false;
  auto it = users_.find(uid);
  std::optional<std::string> name = it != users_.end() ? std::optional<std::string>(it->second.name)
                                                       : GetUserShortNameForUID(uid);
  if (!name) return false;
  std::optional<std::string> folder = GWManagedPreferencesFolderForUser(*name);
  struct stat st {};
  return folder && ::lstat(folder->c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void Manager::refresh() {
  plist::Date now = options_.clock->wallNow();
  for (auto& [uid, user] : users_) update(user, now);
  followPrograms();
  std::uint64_t monotonic = options_.clock->monotonicMicroseconds();
  events_->maybePrune(now, monotonic);
  if (nextFlush_ && monotonic >= *nextFlush_) {
    ledger_->flush();
    programTimes_->flush();
    nextFlush_.reset();
  }
  armTimer();
}

void Manager::armTimer() {
  std::optional<plist::Date> wake;
  bool anyoneCounting = false;
  for (const auto& [uid, user] : users_) {
    anyoneCounting = anyoneCounting || (user.counting && user.limited);
    if (user.wakeAt && (!wake || *user.wakeAt < *wake)) wake = user.wakeAt;
  }
  wakeAt_ = wake;
  std::uint64_t monotonic = options_.clock->monotonicMicroseconds();
  // Flushes go by the monotonic clock: they must happen even when the wall clock stands still or
  // jumps.
  if (programTimes_) {
    anyoneCounting =
        anyoneCounting || programTimes_->anyCounting() || programTimes_->hasUnflushed();
  }
  if ((anyoneCounting || ledger_->hasUnflushed()) && !nextFlush_) {
    nextFlush_ = monotonic + kFlushIntervalMicroseconds;
  }
  std::optional<std::uint64_t> due;
  if (wake) {
    double delay = std::max(
        0.0, wake->secondsSinceReferenceDate - options_.clock->wallNow().secondsSinceReferenceDate);
    due = monotonic + std::uint64_t(std::min(delay, 86400.0 * 8) * 1e6);
  }
  if (nextFlush_) due = due ? std::min(*due, *nextFlush_) : *nextFlush_;
  // Requests come far more often than decisions change: leave an unchanged timer alone (within a
  // millisecond), which saves reprogramming it on every request.
  auto same = [](std::uint64_t a, std::uint64_t b) { return (a > b ? a - b : b - a) < 1000; };
  if (armedFor_ && due && same(*armedFor_, *due) && timerArmed()) return;
  armedFor_ = due;
  if (!due) {
    sd_event_source_set_enabled(timer_, SD_EVENT_OFF);
    return;
  }
  sd_event_source_set_time(timer_, *due);
  sd_event_source_set_enabled(timer_, SD_EVENT_ONESHOT);
}

bool Manager::timerArmed() const {
  int enabled = SD_EVENT_OFF;
  return sd_event_source_get_enabled(timer_, &enabled) >= 0 && enabled != SD_EVENT_OFF;
}

int Manager::onTimer(sd_event_source*, uint64_t, void* self) {
  static_cast<Manager*>(self)->refresh();
  return 0;
}

bool Manager::watchClockChanges() {
  clockFd_ = fs::UniqueFd(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!clockFd_) return false;
  itimerspec far{};
  far.it_value.tv_sec = INT32_MAX;  // never fires; only a clock change wakes it
  if (::timerfd_settime(clockFd_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &far,
                        nullptr) != 0) {
    return false;
  }
  return sd_event_add_io(loop_, &clockWatch_, clockFd_.get(), EPOLLIN, &Manager::onClockChange,
                         this) >= 0;
}

int Manager::onClockChange(sd_event_source*, int fd, uint32_t, void* self) {
  auto* manager = static_cast<Manager*>(self);
  std::uint64_t expirations = 0;
  ssize_t n = ::read(fd, &expirations, sizeof expirations);
  if (n < 0 && errno == ECANCELED) {
    itimerspec far{};
    far.it_value.tv_sec = INT32_MAX;
    ::timerfd_settime(fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &far, nullptr);
    manager->clockJumped();
  }
  return 0;
}

int Manager::onSignal(sd_event_source*, const signalfd_siginfo* info, void* self) {
  auto* manager = static_cast<Manager*>(self);
  if (info->ssi_signo == SIGHUP) {
    manager->trackManagedUsers();
    manager->refresh();
    return 0;
  }
  GW_LOG(1, "Stopping on signal %d", int(info->ssi_signo));
  sd_event_exit(manager->loop_, 0);
  return 0;
}

Decision Manager::loginDecision(uid_t uid) {
  User* user = userFor(uid);
  if (!user) return {};
  plist::Date now = options_.clock->wallNow();
  if (std::optional<Decision> reused = reusableDecision(*user, now)) return *reused;
  Decision decision = update(*user, now);
  armTimer();
  return decision;
}

std::vector<StatusItemInfo> Manager::statusItems(uid_t uid) {
  std::vector<StatusItemInfo> items;
  plist::Date now = options_.clock->wallNow();
  User* user = userFor(uid);
  const ComputerLimit* limit = user ? limits_.limitFor(user->name) : nullptr;
  if (limit) items = statusItemsAt(loginDecision(uid), now, limit->name);
  apps_->addStatusItems(uid, now, items);
  if (user) {
    update(*user, now);  // the programs' state as of now
    armTimer();
    programTimes_->addStatusItems(uid, now, items);
  }
  return items;
}

void Manager::rereadOverrides(uid_t uid, uid_t by) {
  if (User* user = userFor(uid)) {
    overrides_.forget(user->name);
    plist::Date now = options_.clock->wallNow();
    events_->overridesRead(uid, dayKeyOf(now), overrides_.grantFor(user->name, dayKeyOf(now)),
                           GetUserShortNameForUID(by).value_or(std::to_string(by)), now);
    update(*user, options_.clock->wallNow());
    armTimer();
  }
}

MailStore& Manager::mail() {
  if (!mail_) mail_ = std::make_unique<MailStore>();
  return *mail_;
}

void Manager::rereadSettings(uid_t uid) {
  if (User* user = userFor(uid)) {
    limits_.forget(user->name);
    overrides_.forget(user->name);
  }
  trackManagedUsers();
  refresh();
}

void Manager::saveUsage() {
  plist::Date now = options_.clock->wallNow();
  for (auto& [uid, user] : users_) book(user, now, limits_.limitFor(user.name));
  programTimes_->bookAll(now);
  if (ledger_->flush() && programTimes_->flush()) GW_LOG(1, "Usage saved");
}

void Manager::resetUsage(uid_t uid) {
  User* user = userFor(uid);
  if (!user) return;
  plist::Date now = options_.clock->wallNow();
  book(*user, now, limits_.limitFor(user->name));
  ledger_->reset(uid, dayKeyOf(now));
  GW_LOG(1, "Usage of %s for today reset", user->name.c_str());
  update(*user, now);
  armTimer();
}

void Manager::listeningStatusChanged() {
  trackManagedUsers();
  refresh();
}

bool Manager::allowPeer(uid_t peer) {
  return peerLimiter_.allow(peer, options_.clock->monotonicMicroseconds());
}

int Manager::actionsTaken(uid_t uid) const {
  auto it = actionsTaken_.find(uid);
  return it == actionsTaken_.end() ? 0 : it->second;
}

}  // namespace gw::daemon
