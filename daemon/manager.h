// The daemon's one owner of everything: the sd-event loop, the message server on it, the session
// monitor, the end actions, the usage ledger and the users it tracks.
//
// After every event (a request, a session change, the timer, a clock jump) the manager brings the
// users concerned up to date: it books the use counted since last time, works out each one's login
// decision, posts "GatewiseLoginStatusChangedNotification" when a user's answer turns between
// allowed and refused, carries out the host's end action once when a user who is using the
// computer runs out of time, and then arms its single timer for the earliest moment any decision
// can change (a curfew boundary, the end of someone's time) or the next 30-second flush while
// anyone's use is counted. Nobody logged in and nothing changing: no wake-ups at all.
//
// One thread. Made by create(), torn down by the destructor (usage flushed).
#pragma once

#include <signal.h>
#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon/apps/app_launches.h"
#include "daemon/clock.h"
#include "daemon/decision/login_decision.h"
#include "daemon/enforce/session_actions.h"
#include "daemon/events/event.h"
#include "daemon/events/event_service.h"
#include "daemon/limits/computer_limit.h"
#include "daemon/limits/overrides_file.h"
#include "daemon/limits/settings_watch.h"
#include "daemon/mail/mail_store.h"
#include "daemon/programs/program_times.h"
#include "daemon/programs/program_watch.h"
#include "daemon/rate_limiter.h"
#include "daemon/sessions/session_monitor.h"
#include "daemon/status_item_info.h"
#include "daemon/usage/usage_ledger.h"
#include "ipc/dispatcher.h"
#include "ipc/message_server.h"
#include "platform/fs/unique_fd.h"

namespace gw::daemon {

inline constexpr const char* kHostDomain = "com.morvane.Gatewise";
inline constexpr const char* kLoginStatusChangedNotification =
    "GatewiseLoginStatusChangedNotification";
inline constexpr double kFlushIntervalSeconds = 30;

struct ManagerOptions {
  std::string socketPath;          // listened on unless a socket was handed over
  fs::UniqueFd activatedListener;  // from socket activation, or empty
  std::string databasePath;        // the usage database
  std::shared_ptr<const Clock> clock;
  // Tests hand in their own; by default the session engineer's monitor and actions.
  std::function<std::unique_ptr<SessionMonitor>(sd_event*, SessionMonitor::Listener)> makeMonitor;
  std::function<std::unique_ptr<SessionActions>(sd_event*)> makeActions;
  // Posts "GatewiseLoginStatusChangedNotification" for a user; by default on the system bus.
  std::function<void(const std::string& userName)> postLoginStatusChanged;
  // false: no message server and no system bus (unit tests drive the manager directly).
  bool serve = true;
  // Follows the managed users' programs through the kernel's process events (serve only).
  bool watchPrograms = true;
  // Signals a limited program's process; by default signalProgram (tests record instead).
  ProgramTimes::Signal signalProgram;
};

class Manager {
 public:
  static std::unique_ptr<Manager> create(ManagerOptions options, std::string* error);
  ~Manager();
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  // Runs the loop until SIGTERM or SIGINT; flushes usage on the way out. The exit status.
  int run();
  sd_event* loop() const { return loop_; }
  plist::Date now() const { return options_.clock->wallNow(); }

  // What the routines ask. uid is the user the question is about.
  Decision loginDecision(uid_t uid);
  std::vector<StatusItemInfo> statusItems(uid_t uid);
  // by: who asked (recorded with a grant that grew).
  void rereadOverrides(uid_t uid, uid_t by = 0);
  void rereadSettings(uid_t uid);
  void saveUsage();
  void resetUsage(uid_t uid);
  void listeningStatusChanged();
  // Rate limit of what one peer may make the daemon do.
  bool allowPeer(uid_t peer);
  // Keeps an event of a managed user for the administrator (logged when it cannot); events of
  // root and of users without managed preferences are not kept.
  void recordEvent(Event event);
  // Whether uid has a managed-preferences folder.
  bool isManaged(uid_t uid) const;
  // The recorded events and the proxies clients query them through.
  EventService& events() { return *events_; }
  // The users' mail white lists and chat logs.
  MailStore& mail();
  // Launch decisions, refused launches and their enforcement.
  AppLaunches& apps() { return *apps_; }

  // Brings every tracked user up to date and re-arms the timer (the timer's own work).
  void refresh();
  // The moment the timer is armed for (nullopt: disarmed).
  std::optional<plist::Date> nextWake() const { return wakeAt_; }
  // Whether the timer is armed at all (a decision change or a flush is due some time).
  bool timerArmed() const;
  // What the end actions did, per uid (tests).
  int actionsTaken(uid_t uid) const;
  // Called on clock jumps: the time before the jump is booked by the monotonic clock.
  void clockJumped();
  // The programs users run and the time they spend in limited ones.
  ProgramWatch& programs() { return *programWatch_; }
  ProgramTimes& programTimes() { return *programTimes_; }

 private:
  struct User {
    uid_t uid = 0;
    std::string name;
    bool counting = false;
    bool limited = false;  // has a computer limit in force, so its use is booked
    plist::Date countingSince;
    std::uint64_t monotonicSince = 0;
    std::optional<bool> lastAllowed;
    bool acted = false;
    std::optional<plist::Date> wakeAt;
    // The last decision, which a login question reuses while nothing it was made from changed.
    std::optional<Decision> decision;
    plist::Date decidedAt;
    std::uint64_t decidedMonotonic = 0;
    std::optional<std::uint64_t> decidedGeneration;  // of settingsWatch_; none: files unwatched
    const ComputerLimit* decidedLimit = nullptr;     // what it was made from
    Grant decidedGrant;
  };

  explicit Manager(ManagerOptions options);
  bool start(std::string* error);
  User* userFor(uid_t uid);
  void trackManagedUsers();
  void sessionsChanged(uid_t uid);
  void followPrograms();
  void programsChanged(uid_t uid);
  void book(User& user, plist::Date now, const ComputerLimit* limit);
  Decision decisionFor(User& user, const ComputerLimit* limit, plist::Date now);
  // Books, decides, notifies and acts for one user; the decision it made.
  Decision update(User& user, plist::Date now);
  // The user's decision at now from what the last one was made from, when nothing it depends on
  // can have changed since; nullopt when it must be made afresh by update().
  std::optional<Decision> reusableDecision(const User& user, plist::Date now);
  void endTime(User& user, const Decision& decision);
  void armTimer();
  static int onTimer(sd_event_source*, uint64_t, void* self);
  static int onClockChange(sd_event_source*, int fd, uint32_t, void* self);
  static int onSignal(sd_event_source*, const signalfd_siginfo*, void* self);
  bool watchClockChanges();

  ManagerOptions options_;
  sd_event* loop_ = nullptr;
  sd_bus* systemBus_ = nullptr;  // logind's bus; nullptr when there is none
  sd_event_source* timer_ = nullptr;
  sd_event_source* clockWatch_ = nullptr;
  fs::UniqueFd clockFd_;
  std::vector<sd_event_source*> signals_;
  std::optional<sigset_t> savedSignalMask_;  // the mask before start() blocked the stop signals
  std::unique_ptr<UsageLedger> ledger_;
  std::unique_ptr<EventService> events_;
  std::unique_ptr<SessionMonitor> monitor_;
  std::unique_ptr<SessionActions> actions_;
  ipc::Dispatcher dispatcher_{ipc::Service::Daemon};
  std::unique_ptr<ipc::MessageServer> server_;
  std::unique_ptr<AppLaunches> apps_;
  std::unique_ptr<ProgramWatch> programWatch_;
  std::unique_ptr<ProgramTimes> programTimes_;
  std::size_t programsFollowedFor_ = 0;  // users_.size() when the watch last read /proc
  ComputerLimitCache limits_;
  OverridesCache overrides_;
  SettingsWatch settingsWatch_;
  std::optional<std::uint64_t> watchReadFor_;  // the server's read generation it was last read in
  RateLimiter<uid_t> peerLimiter_{20, 120};
  std::map<uid_t, User> users_;
  std::unique_ptr<MailStore> mail_;
  std::map<uid_t, int> actionsTaken_;
  std::optional<plist::Date> wakeAt_;
  std::optional<std::uint64_t> nextFlush_;  // monotonic microseconds
  std::optional<std::uint64_t> armedFor_;   // what the timer is set to, to skip resetting it
};

// Registers the handler of every daemon routine (the routine table) on dispatcher.
void registerRoutines(ipc::Dispatcher& dispatcher, Manager& manager);

}  // namespace gw::daemon
