#include "daemon/programs/program_times.h"

#include <fcntl.h>
#include <gatewise/log.h>
#include <gatewise/status.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "daemon/decision/day.h"
#include "platform/fs/unique_fd.h"

namespace gw::daemon {
namespace {

constexpr std::size_t kMaxCachedBundles = 4096;
constexpr std::size_t kMaxUsageEntries = 65536;

plist::Date plus(plist::Date d, double seconds) {
  return plist::Date{d.secondsSinceReferenceDate + seconds};
}

std::string executableOf(pid_t pid) {
  char link[40];
  std::snprintf(link, sizeof link, "/proc/%d/exe", int(pid));
  char target[4096];
  ssize_t n = ::readlink(link, target, sizeof target - 1);
  return n > 0 ? std::string(target, std::size_t(n)) : std::string();
}

}  // namespace

bool signalProgram(pid_t pid, uid_t uid, const std::string& path, int signal) {
  if (pid <= 1 || pid == ::getpid()) return false;
  // Pinned first, checked second: the pidfd names the process whose owner and program were read.
  fs::UniqueFd pidfd(int(::syscall(SYS_pidfd_open, pid, 0)));
  if (!pidfd) return false;
  char folder[32];
  std::snprintf(folder, sizeof folder, "/proc/%d", int(pid));
  struct stat st {};
  if (::stat(folder, &st) != 0 || st.st_uid != uid) return false;
  // A program replaced on disk while it runs (an update) still counts as itself.
  std::string running = executableOf(pid);
  if (running != path && running != path + " (deleted)") return false;
  return ::syscall(SYS_pidfd_send_signal, pidfd.get(), signal, nullptr, 0) == 0;
}

std::vector<RunningProgram> ProgramTimes::matching(const ProgramLimit& limit,
                                                   const std::vector<RunningProgram>& running) {
  std::vector<RunningProgram> found;
  for (const RunningProgram& program : running) {
    auto it = bundles_.find(program.path);
    if (it == bundles_.end()) {
      if (bundles_.size() >= kMaxCachedBundles) bundles_.clear();
      it = bundles_.emplace(program.path, programBundleOf(program.path)).first;
    }
    if (programMatches(limit.programs, program.path, it->second)) found.push_back(program);
  }
  return found;
}

void ProgramTimes::book(const Key& key, plist::Date from, plist::Date to,
                        const GWCurfews* curfews) {
  while (from < to) {
    plist::Date until = std::min(startOfNextDay(from), to, [](plist::Date a, plist::Date b) {
      return a.secondsSinceReferenceDate < b.secondsSinceReferenceDate;
    });
    std::string day = dayKeyOf(from);
    DayUsage part{until.secondsSinceReferenceDate - from.secondsSinceReferenceDate,
                  curfewSecondsBetween(curfews, from, until)};
    usageOn(key.first, key.second, day);  // loaded before it grows
    DayUsage& usage = usage_[{key.first, key.second, day}];
    usage.used += part.used;
    usage.curfewUsed += part.curfewUsed;
    DayUsage& pending = unflushed_[{key.first, key.second, day}];
    pending.used += part.used;
    pending.curfewUsed += part.curfewUsed;
    from = until;
  }
}

DayUsage ProgramTimes::usageOn(uid_t uid, const std::string& item, const std::string& day) {
  DayKey key{uid, item, day};
  auto it = usage_.find(key);
  if (it != usage_.end()) return it->second;
  if (usage_.size() >= kMaxUsageEntries && store_ && flush()) usage_.clear();  // all stored
  DayUsage total = store_ ? store_->programUsageOn(uid, item, day) : DayUsage{};
  auto pending = unflushed_.find(key);
  if (pending != unflushed_.end()) {
    total.used += pending->second.used;
    total.curfewUsed += pending->second.curfewUsed;
  }
  usage_[key] = total;
  return total;
}

void ProgramTimes::signalAll(uid_t uid, const std::vector<RunningProgram>& programs, int signal) {
  for (const RunningProgram& program : programs) signal_(program.pid, uid, program.path, signal);
}

std::optional<plist::Date> ProgramTimes::update(uid_t uid, const std::string& userName,
                                                bool sessionCounts, plist::Date now) {
  const std::vector<ProgramLimit>& limits = limits_.limitsFor(userName);
  std::vector<RunningProgram> running = watch_.programsOf(uid);
  std::optional<plist::Date> wake;
  auto consider = [&](std::optional<plist::Date> at) {
    if (at && (!wake || *at < *wake)) wake = at;
  };
  std::vector<Key> seen;
  for (const ProgramLimit& limit : limits) {
    Key key{uid, limit.id};
    seen.push_back(key);
    Tracked& t = tracked_[key];
    t.name = limit.limit.name;
    t.kind = limit.itemKind;
    t.curfews = limit.limit.curfews;
    if (t.counting && now > t.since) book(key, t.since, now, limit.limit.curfews.get());
    t.since = now;  // also when the clock went back: nothing is counted twice
    t.monotonicSince = clock_.monotonicMicroseconds();

    std::vector<RunningProgram> found = matching(limit, running);
    t.running = !found.empty();
    t.counting = t.running && sessionCounts;
    UsageLookup usage = [this, &key](const std::string& day) {
      return usageOn(key.first, key.second, day);
    };
    t.decision = decide(&limit.limit, now, usage, Grant{});

    if (t.decision.allowed() || !t.running) {
      t.endedAt.reset();
      t.checkAt.reset();
      t.couldNotQuitAt.reset();
      t.killAt.reset();
      if (t.running) consider(t.decision.end);
      continue;
    }
    if (!t.endedAt) {
      t.endedAt = now;
      t.endReason = t.decision.reason;
      t.checkAt = plus(now, kQuitCheckSeconds);
      GW_LOG(0, "Time of %s with \"%s\" is over (%s); asking it to quit", userName.c_str(),
             t.name.c_str(), t.endReason == kGWLoginCurfew ? "a curfew began" : "allowance used");
      signalAll(uid, found, SIGTERM);
    } else if (t.killAt && !(now < *t.killAt)) {
      GW_LOG(0, "\"%s\" of %s did not quit; killing it", t.name.c_str(), userName.c_str());
      signalAll(uid, found, SIGKILL);
      t.killAt.reset();
      t.checkAt = plus(now, kQuitCheckSeconds);
    } else if (t.checkAt && !(now < *t.checkAt)) {
      t.checkAt.reset();
      if (!t.couldNotQuitAt) {
        t.couldNotQuitAt = now;
        t.killAt = plus(now, kCouldNotQuitSeconds);
      }
    }
    consider(t.checkAt);
    consider(t.killAt);
  }
  // Items no longer in force stop counting (their time so far was booked above or before).
  std::erase_if(tracked_, [&](const auto& entry) {
    return entry.first.first == uid &&
           std::find(seen.begin(), seen.end(), entry.first) == seen.end();
  });
  if (wake && !(*wake > now)) wake = plus(now, 1);
  return wake;
}

void ProgramTimes::addStatusItems(uid_t uid, plist::Date now,
                                  std::vector<StatusItemInfo>& items) const {
  for (auto it = tracked_.lower_bound({uid, std::string()});
       it != tracked_.end() && it->first.first == uid; ++it) {
    const Tracked& t = it->second;
    std::string prefix = "program-" + it->first.second + "-";
    if (t.endedAt) {
      const char* kind = t.endReason == kGWLoginCurfew ? "GatewiseStatusKindCurfewUnallowed"
                                                       : "GatewiseStatusKindAllowanceExceeded";
      items.push_back({prefix + "end", kind, t.name, *t.endedAt, *t.endedAt, t.kind});
      if (t.couldNotQuitAt && t.killAt) {
        items.push_back({prefix + "could-not-quit", std::string(kGWStatusKindCouldNotQuit), t.name,
                         *t.couldNotQuitAt, *t.killAt, t.kind});
      }
      continue;
    }
    if (!t.counting || !t.decision.allowed()) continue;
    for (StatusItemInfo& warning : statusItemsAt(t.decision, now, t.name)) {
      warning.itemID = prefix + warning.itemID.substr(warning.itemID.find('-') + 1);
      warning.itemKind = t.kind;
      items.push_back(std::move(warning));
    }
  }
}

void ProgramTimes::bookAll(plist::Date now) {
  for (auto& [key, t] : tracked_) {
    if (t.counting && now > t.since) book(key, t.since, now, t.curfews.get());
    t.since = now;
    t.monotonicSince = clock_.monotonicMicroseconds();
  }
}

void ProgramTimes::clockJumped(plist::Date now) {
  std::uint64_t monotonic = clock_.monotonicMicroseconds();
  for (auto& [key, t] : tracked_) {
    if (t.counting) {
      double elapsed = double(monotonic - t.monotonicSince) / 1e6;
      book(key, t.since, plus(t.since, elapsed), t.curfews.get());
    }
    t.since = now;
    t.monotonicSince = monotonic;
  }
}

bool ProgramTimes::flush() {
  if (unflushed_.empty()) return true;
  if (!store_) return false;
  std::vector<ProgramUsageDelta> deltas;
  for (const auto& [key, usage] : unflushed_) {
    deltas.push_back({std::get<0>(key), std::get<1>(key), std::get<2>(key), usage});
  }
  if (!store_->addProgramUsage(deltas)) return false;
  unflushed_.clear();
  return true;
}

bool ProgramTimes::anyCounting() const {
  return std::any_of(tracked_.begin(), tracked_.end(),
                     [](const auto& entry) { return entry.second.counting; });
}

}  // namespace gw::daemon
