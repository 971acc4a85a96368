#include "daemon/usage/usage_store.h"

#include <gatewise/log.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>

#include "daemon/usage/sqlite_statement.h"
#include "platform/fs/root.h"

namespace gw::daemon {
namespace {

constexpr const char* kStateFolder = "/Library/Application Support/Morvane/Tutela/State";

bool quickCheckPasses(sqlite3* db) {
  Statement check(db, "PRAGMA quick_check");
  if (!check || sqlite3_step(check.get()) != SQLITE_ROW) return false;
  const unsigned char* text = sqlite3_column_text(check.get(), 0);
  return text && std::strcmp(reinterpret_cast<const char*>(text), "ok") == 0;
}

void moveAside(const std::string& path) {
  std::string aside = path + ".corrupt-" + std::to_string(::time(nullptr));
  ::rename(path.c_str(), aside.c_str());
  for (const char* suffix : {"-wal", "-shm"}) ::unlink((path + suffix).c_str());
  GW_LOG(0, "*** The usage database %s was damaged; moved it to %s and started a new one",
         path.c_str(), aside.c_str());
}

sqlite3* openFile(const std::string& path, int flags) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_NOFOLLOW, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, 2000);
  return db;
}

// The used and curfew-used seconds of a one-row query; zeros when there is no row.
DayUsage readDayUsage(sqlite3_stmt* q) {
  DayUsage usage;
  if (sqlite3_step(q) == SQLITE_ROW) {
    usage.used = sqlite3_column_double(q, 0);
    usage.curfewUsed = sqlite3_column_double(q, 1);
  }
  return usage;
}

}  // namespace

std::string defaultUsageDatabasePath() {
  return fs::rootedPath(std::string(kStateFolder) + "/tutelad.sqlite");
}

std::unique_ptr<UsageStore> UsageStore::open(const std::string& path, std::string* error) {
  std::string folder = path.substr(0, path.rfind('/'));
  // The parents are shared with the rest of the system; only the state folder is root-only.
  std::error_code ignored;
  std::filesystem::create_directories(folder.substr(0, folder.rfind('/')), ignored);
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    if (error) *error = "cannot create " + folder + ": " + std::strerror(errno);
    return nullptr;
  }
  ::chmod(folder.c_str(), 0700);
  for (int attempt = 0; attempt < 2; ++attempt) {
    mode_t old = ::umask(077);
    sqlite3* db = openFile(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    ::umask(old);
    std::unique_ptr<UsageStore> store(db ? new UsageStore(db) : nullptr);
    if (store && quickCheckPasses(db) && store->prepareSchema(error)) {
      ::chmod(path.c_str(), 0600);
      return store;
    }
    store.reset();
    if (attempt == 0) moveAside(path);
  }
  if (error && error->empty()) *error = "cannot open " + path;
  return nullptr;
}

std::unique_ptr<UsageStore> UsageStore::openReadOnly(const std::string& path, std::string* error) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    if (error) *error = path + ": " + std::strerror(errno);
    return nullptr;
  }
  sqlite3* db = openFile(path, SQLITE_OPEN_READONLY);
  if (!db) {
    if (error) *error = "cannot open " + path;
    return nullptr;
  }
  return std::unique_ptr<UsageStore>(new UsageStore(db));
}

UsageStore::~UsageStore() { sqlite3_close(db_); }

bool UsageStore::execute(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
  GW_LOG(0, "*** usage database: %s", message ? message : sqlite3_errmsg(db_));
  sqlite3_free(message);
  return false;
}

bool UsageStore::prepareSchema(std::string* error) {
  if (!execute("PRAGMA journal_mode=WAL") || !execute("PRAGMA synchronous=NORMAL")) {
    if (error) *error = sqlite3_errmsg(db_);
    return false;
  }
  Statement version(db_, "PRAGMA user_version");
  int current = version && sqlite3_step(version.get()) == SQLITE_ROW
                    ? sqlite3_column_int(version.get(), 0)
                    : -1;
  if (current == kSchemaVersion) return true;
  if (current < 0 || current > kSchemaVersion) {
    if (error) *error = "unknown schema version " + std::to_string(current);
    return false;
  }
  // Each step takes the schema from one version to the next; all of them run in one transaction.
  static constexpr const char* kSteps[] = {
      // 0 -> 1: usage and the events the daemon acted on.
      "CREATE TABLE usage(uid INTEGER NOT NULL, day TEXT NOT NULL, used REAL NOT NULL,"
      " curfew_used REAL NOT NULL, PRIMARY KEY(uid, day)) WITHOUT ROWID;"
      "CREATE TABLE events(id INTEGER PRIMARY KEY, uid INTEGER NOT NULL, at REAL NOT NULL,"
      " kind TEXT NOT NULL, detail TEXT NOT NULL);",
      // 1 -> 2: typed event fields, and indexes for queries by user and time, and by user, entity
      // and time.
      "CREATE TABLE event_fields(event_id INTEGER NOT NULL, name TEXT NOT NULL, value,"
      " type INTEGER NOT NULL, PRIMARY KEY(event_id, name)) WITHOUT ROWID;"
      "CREATE INDEX events_by_uid_time ON events(uid, at);"
      "CREATE INDEX events_by_uid_kind_time ON events(uid, kind, at);",
      // 2 -> 3: usage of limited programs and groups, by item identifier.
      "CREATE TABLE IF NOT EXISTS program_usage(uid INTEGER NOT NULL, item TEXT NOT NULL, day TEXT "
      "NOT NULL,"
      " used REAL NOT NULL, curfew_used REAL NOT NULL, PRIMARY KEY(uid, item, day))"
      " WITHOUT ROWID;",
  };
  std::string script = "BEGIN;";
  for (int step = current; step < kSchemaVersion; ++step) script += kSteps[step];
  script += "PRAGMA user_version=" + std::to_string(kSchemaVersion) + ";COMMIT;";
  bool made = execute(script.c_str());
  if (!made) {
    execute("ROLLBACK");
    if (error) *error = sqlite3_errmsg(db_);
  }
  return made;
}

DayUsage UsageStore::usageOn(uid_t uid, const std::string& day) const {
  Statement q(db_, "SELECT used, curfew_used FROM usage WHERE uid = ?1 AND day = ?2");
  if (!q) return {};
  sqlite3_bind_int64(q.get(), 1, uid);
  sqlite3_bind_text(q.get(), 2, day.c_str(), int(day.size()), SQLITE_TRANSIENT);
  return readDayUsage(q.get());
}

bool UsageStore::add(const std::vector<UsageDelta>& deltas) {
  if (deltas.empty()) return true;
  return inTransaction([&] {
    Statement upsert(db_,
                     "INSERT INTO usage(uid, day, used, curfew_used) VALUES(?1, ?2, ?3, ?4)"
                     " ON CONFLICT(uid, day) DO UPDATE SET used = used + ?3,"
                     " curfew_used = curfew_used + ?4");
    bool ok = bool(upsert);
    for (const UsageDelta& d : deltas) {
      if (!ok) break;
      sqlite3_reset(upsert.get());
      sqlite3_bind_int64(upsert.get(), 1, d.uid);
      sqlite3_bind_text(upsert.get(), 2, d.day.c_str(), int(d.day.size()), SQLITE_TRANSIENT);
      sqlite3_bind_double(upsert.get(), 3, d.add.used);
      sqlite3_bind_double(upsert.get(), 4, d.add.curfewUsed);
      ok = sqlite3_step(upsert.get()) == SQLITE_DONE;
    }
    return ok;
  });
}

bool UsageStore::reset(uid_t uid, const std::string& day) {
  return inTransaction([&] {
    Statement del(db_, "DELETE FROM usage WHERE uid = ?1 AND day = ?2");
    if (!del) return false;
    sqlite3_bind_int64(del.get(), 1, uid);
    sqlite3_bind_text(del.get(), 2, day.c_str(), int(day.size()), SQLITE_TRANSIENT);
    return sqlite3_step(del.get()) == SQLITE_DONE;
  });
}

bool UsageStore::inTransaction(const std::function<bool()>& work) {
  if (!execute("BEGIN IMMEDIATE")) return false;
  if (!work()) {
    GW_LOG(0, "*** usage database: %s", sqlite3_errmsg(db_));
    execute("ROLLBACK");
    return false;
  }
  return execute("COMMIT");
}

DayUsage UsageStore::programUsageOn(uid_t uid, const std::string& item,
                                    const std::string& day) const {
  Statement q(db_,
              "SELECT used, curfew_used FROM program_usage WHERE uid = ?1 AND item = ?2 AND"
              " day = ?3");
  if (!q) return {};
  sqlite3_bind_int64(q.get(), 1, uid);
  sqlite3_bind_text(q.get(), 2, item.c_str(), int(item.size()), SQLITE_TRANSIENT);
  sqlite3_bind_text(q.get(), 3, day.c_str(), int(day.size()), SQLITE_TRANSIENT);
  return readDayUsage(q.get());
}

bool UsageStore::addProgramUsage(const std::vector<ProgramUsageDelta>& deltas) {
  if (deltas.empty()) return true;
  return inTransaction([&] {
    Statement upsert(db_,
                     "INSERT INTO program_usage(uid, item, day, used, curfew_used)"
                     " VALUES(?1, ?2, ?3, ?4, ?5) ON CONFLICT(uid, item, day) DO UPDATE SET"
                     " used = used + ?4, curfew_used = curfew_used + ?5");
    bool ok = bool(upsert);
    for (const ProgramUsageDelta& d : deltas) {
      if (!ok) break;
      sqlite3_reset(upsert.get());
      sqlite3_bind_int64(upsert.get(), 1, d.uid);
      sqlite3_bind_text(upsert.get(), 2, d.item.c_str(), int(d.item.size()), SQLITE_TRANSIENT);
      sqlite3_bind_text(upsert.get(), 3, d.day.c_str(), int(d.day.size()), SQLITE_TRANSIENT);
      sqlite3_bind_double(upsert.get(), 4, d.add.used);
      sqlite3_bind_double(upsert.get(), 5, d.add.curfewUsed);
      ok = sqlite3_step(upsert.get()) == SQLITE_DONE;
    }
    return ok;
  });
}

bool UsageStore::recordEvent(uid_t uid, double unixTime, const std::string& kind,
                             const std::string& detail) {
  if (!execute("BEGIN IMMEDIATE")) return false;
  Statement ins(db_, "INSERT INTO events(uid, at, kind, detail) VALUES(?1, ?2, ?3, ?4)");
  bool ok = bool(ins);
  if (ok) {
    sqlite3_bind_int64(ins.get(), 1, uid);
    sqlite3_bind_double(ins.get(), 2, unixTime);
    sqlite3_bind_text(ins.get(), 3, kind.c_str(), int(kind.size()), SQLITE_TRANSIENT);
    sqlite3_bind_text(ins.get(), 4, detail.c_str(), int(detail.size()), SQLITE_TRANSIENT);
    ok = sqlite3_step(ins.get()) == SQLITE_DONE;
  }
  if (!ok) {
    execute("ROLLBACK");
    return false;
  }
  return execute("COMMIT");
}

int UsageStore::eventCount(uid_t uid, const std::string& kind) const {
  Statement q(db_, "SELECT count(*) FROM events WHERE uid = ?1 AND kind = ?2");
  if (!q) return 0;
  sqlite3_bind_int64(q.get(), 1, uid);
  sqlite3_bind_text(q.get(), 2, kind.c_str(), int(kind.size()), SQLITE_TRANSIENT);
  return sqlite3_step(q.get()) == SQLITE_ROW ? sqlite3_column_int(q.get(), 0) : 0;
}

}  // namespace gw::daemon
