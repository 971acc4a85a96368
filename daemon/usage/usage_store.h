// The daemon's memory across restarts: counted usage per user per local day (of the computer, and
// of each limited program or group item), and the events it recorded, in one SQLite database. The
// schema (version 3) is made and migrated here; the event
// store (daemon/events/event_store.h) reads and writes the events tables through its own
// connection to the same file.
//
// The file lives in a root-only folder (0700; the file 0600) below the daemon's folder. It uses a
// WAL journal, keeps its schema version in user_version, and does every write in one transaction,
// so a kill -9 loses at most what was not yet flushed and never the file. A file that cannot be
// opened as a database or fails PRAGMA quick_check is moved aside (".corrupt-<time>") with a log
// line and a new one is started. One thread; not copyable.
#pragma once

#include <sqlite3.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon/decision/login_decision.h"

namespace gw::daemon {

// "<root>/Library/Application Support/Morvane/Tutela/State/tutelad.sqlite".
std::string defaultUsageDatabasePath();

struct UsageDelta {
  uid_t uid = 0;
  std::string day;
  DayUsage add;
};

// Time counted for one program or group item (by its identifier).
struct ProgramUsageDelta {
  uid_t uid = 0;
  std::string item;
  std::string day;
  DayUsage add;
};

class UsageStore {
 public:
  static constexpr int kSchemaVersion = 3;

  // nullptr (with *error) when no database can be had at path, not even a fresh one.
  static std::unique_ptr<UsageStore> open(const std::string& path, std::string* error);
  // Read-only, for the CLI; nullptr when the file is missing or unreadable.
  static std::unique_ptr<UsageStore> openReadOnly(const std::string& path, std::string* error);
  ~UsageStore();
  UsageStore(const UsageStore&) = delete;
  UsageStore& operator=(const UsageStore&) = delete;

  DayUsage usageOn(uid_t uid, const std::string& day) const;
  // Adds every delta in one transaction. False (logged) when it could not.
  bool add(const std::vector<UsageDelta>& deltas);
  // Forgets the user's usage of day.
  bool reset(uid_t uid, const std::string& day);
  DayUsage programUsageOn(uid_t uid, const std::string& item, const std::string& day) const;
  // Adds every delta in one transaction. False (logged) when it could not.
  bool addProgramUsage(const std::vector<ProgramUsageDelta>& deltas);
  bool recordEvent(uid_t uid, double unixTime, const std::string& kind, const std::string& detail);
  // How many events of kind were recorded for uid (tests and the CLI).
  int eventCount(uid_t uid, const std::string& kind) const;

 private:
  explicit UsageStore(sqlite3* db) : db_(db) {}
  bool execute(const char* sql);
  // Runs work in one transaction: committed when it returns true, rolled back (logged) when not.
  bool inTransaction(const std::function<bool()>& work);
  bool prepareSchema(std::string* error);
  sqlite3* db_;
};

}  // namespace gw::daemon
