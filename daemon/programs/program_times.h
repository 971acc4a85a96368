// The time users spend in programs and groups that have limits, and what happens when it is over.
//
// For each of a user's program and group limits (ProgramLimitCache) update():
// - books the time since the last update when the item was counting: an item counts while at least
//   one of the user's processes runs a program it covers (ProgramWatch) and the user's session
//   counts (the computer's idle and locked rule); the time is split at local midnights and into the
//   part inside the item's curfews, per user, item and day;
// - decides with the computer's decision function (decide) from the item's curfews, allowances and
//   booked time; administrator grants are for the computer and do not apply here;
// - while the item's programs may run: the status items warn 5..1 minutes before the end (as for
//   the computer) and the next moment to look is the end;
// - once they may not and one of them runs: the end alert ("GatewiseStatusKindAllowanceExceeded" or
//   "GatewiseStatusKindCurfewUnallowed"), SIGTERM to every matching process; if one is still there
//   kQuitCheckSeconds later, the could-not-quit item ("GatewiseStatusKindCouldNotQuit") for the
//   grace of kCouldNotQuitSeconds, then SIGKILL to those left. A program started again while its
//   time is over goes the same way.
// It returns the earliest moment at which any of that can change for the user, for the manager's
// single timer; between updates nothing runs.
//
// Booked time is read from the usage database once per user, item and day, kept here, and written
// by flush() (the manager's 30-second flush). Loop thread only.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/clock.h"
#include "daemon/decision/login_decision.h"
#include "daemon/programs/program_limits.h"
#include "daemon/programs/program_watch.h"
#include "daemon/status_item_info.h"
#include "daemon/usage/usage_store.h"

namespace gw::daemon {

inline constexpr double kQuitCheckSeconds = 5;
inline constexpr double kCouldNotQuitSeconds = 60;

// Sends signal to pid when it is still uid's process running path (through a pidfd, so a reused
// pid is never hit); whether it was sent.
bool signalProgram(pid_t pid, uid_t uid, const std::string& path, int signal);

class ProgramTimes {
 public:
  using Signal = std::function<bool(pid_t, uid_t, const std::string& path, int signal)>;
  // store: where booked time is kept across restarts (nullptr: in memory only); it must outlive
  // this object.
  // The clock must outlive this object too.
  ProgramTimes(const Clock& clock, const ProgramWatch& watch, Signal signal = signalProgram,
               UsageStore* store = nullptr)
      : clock_(clock), watch_(watch), signal_(std::move(signal)), store_(store) {}

  // Books, decides and acts for uid's program limits at now; the next moment to look again.
  std::optional<plist::Date> update(uid_t uid, const std::string& userName, bool sessionCounts,
                                    plist::Date now);
  // Books the time of every counting item up to now (before a flush), nothing else.
  void bookAll(plist::Date now);
  // The wall clock was set: what counted before is booked for as long as the monotonic clock says.
  void clockJumped(plist::Date now);
  // Appends uid's program warnings and alerts at now (from the last update).
  void addStatusItems(uid_t uid, plist::Date now, std::vector<StatusItemInfo>& items) const;
  // Time booked for uid's item on day (tests and the flush).
  DayUsage usageOn(uid_t uid, const std::string& item, const std::string& day);
  // Whether any item of anyone is counting.
  bool anyCounting() const;
  bool hasUnflushed() const { return !unflushed_.empty(); }
  // Writes the time booked since the last flush (kept for the next one when that fails).
  bool flush();
  ProgramLimitCache& limits() { return limits_; }

 private:
  struct Tracked {
    std::string name, kind;
    bool counting = false;
    bool running = false;
    plist::Date since;
    std::uint64_t monotonicSince = 0;
    GWCurfewsRef curfews;  // the item's, as last read
    Decision decision;
    std::optional<plist::Date> endedAt;  // when the programs were told to quit
    GWLoginReason endReason = kGWLoginAllowed;
    std::optional<plist::Date> checkAt;         // when to look whether they quit
    std::optional<plist::Date> couldNotQuitAt;  // when they were found still running
    std::optional<plist::Date> killAt;          // when those left are killed
  };
  using Key = std::pair<uid_t, std::string>;
  using DayKey = std::tuple<uid_t, std::string, std::string>;

  void book(const Key& key, plist::Date from, plist::Date to, const GWCurfews* curfews);
  // The processes of running that item's programs cover.
  std::vector<RunningProgram> matching(const ProgramLimit& limit,
                                       const std::vector<RunningProgram>& running);
  void signalAll(uid_t uid, const std::vector<RunningProgram>& programs, int signal);

  const Clock& clock_;
  const ProgramWatch& watch_;
  Signal signal_;
  UsageStore* store_;
  ProgramLimitCache limits_;
  std::map<Key, Tracked> tracked_;
  std::map<DayKey, DayUsage> usage_;  // stored and unflushed together
  std::map<DayKey, DayUsage> unflushed_;
  std::map<std::string, ProgramBundle> bundles_;  // by program path
};

}  // namespace gw::daemon
