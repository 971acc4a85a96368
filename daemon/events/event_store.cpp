#include "daemon/events/event_store.h"

#include <gatewise/log.h>

#include "daemon/events/predicate_sql.h"
#include "daemon/usage/sqlite_statement.h"
#include "daemon/usage/usage_store.h"

namespace gw::daemon {
namespace {

// How a field's value is stored, so that it reads back with its type.
enum FieldType { kString = 0, kInteger = 1, kReal = 2, kBoolean = 3, kDate = 4 };

// At most max bytes of text, not cutting a UTF-8 sequence.
std::string clipped(const std::string& text, std::size_t max) {
  if (text.size() <= max) return text;
  std::size_t end = max;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

// The stored form of a field: its type and the value to bind.
std::pair<FieldType, plist::Value> storedField(const plist::Value& value) {
  switch (value.type()) {
    case plist::Type::String:
      return {kString, plist::Value(clipped(value.string(), EventStore::kMaxValueBytes))};
    case plist::Type::Integer:
      return {kInteger, plist::Value(value.intValue())};
    case plist::Type::Real:
      return {kReal, value};
    case plist::Type::Boolean:
      return {kBoolean, value};
    case plist::Type::Date:
      return {kDate, plist::Value(value.date().unixTime())};
    default:
      return {kString,
              plist::Value(clipped(plist::description(value), EventStore::kMaxValueBytes))};
  }
}

plist::Value readField(sqlite3_stmt* q, int column, int type) {
  switch (type) {
    case kInteger:
      return plist::Value(std::int64_t(sqlite3_column_int64(q, column)));
    case kReal:
      return plist::Value(sqlite3_column_double(q, column));
    case kBoolean:
      return plist::Value(sqlite3_column_int(q, column) != 0);
    case kDate:
      return plist::Value(plist::Date::fromUnixTime(sqlite3_column_double(q, column)));
    default: {
      const unsigned char* text = sqlite3_column_text(q, column);
      int size = sqlite3_column_bytes(q, column);
      return plist::Value(text ? std::string(reinterpret_cast<const char*>(text), std::size_t(size))
                               : std::string());
    }
  }
}

std::string summary(const Event& event) {
  std::string detail;
  for (const auto& [name, value] : event.fields) {
    if (!detail.empty()) detail += ' ';
    detail += name + '=' + (value.isString() ? value.string() : plist::description(value));
  }
  return clipped(detail, EventStore::kMaxValueBytes);
}

struct Deadline {
  std::chrono::steady_clock::time_point at;
  bool passed = false;
};

int checkDeadline(void* context) {
  auto* deadline = static_cast<Deadline*>(context);
  deadline->passed = deadline->passed || std::chrono::steady_clock::now() >= deadline->at;
  return deadline->passed ? 1 : 0;
}

const char* sortColumn(const std::string& key) {
  if (key == "entity") return "e.kind";
  if (key == "uid") return "e.uid";
  return "e.at";
}

}  // namespace

std::unique_ptr<EventStore> EventStore::open(const std::string& path, std::string* error) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, nullptr) !=
      SQLITE_OK) {
    if (error) *error = "cannot open " + path + ": " + (db ? sqlite3_errmsg(db) : "no memory");
    sqlite3_close(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, 2000);
  std::unique_ptr<EventStore> store(new EventStore(db));
  // As the usage store: in WAL mode a commit without a sync loses at most the last ones in a
  // power cut, never the file.
  store->execute("PRAGMA synchronous=NORMAL");
  Statement version(db, "PRAGMA user_version");
  if (!version || sqlite3_step(version.get()) != SQLITE_ROW ||
      sqlite3_column_int(version.get(), 0) != UsageStore::kSchemaVersion) {
    if (error) *error = path + " does not have the events schema";
    return nullptr;
  }
  return store;
}

EventStore::~EventStore() { sqlite3_close(db_); }

bool EventStore::execute(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
  GW_LOG(0, "*** event database: %s", message ? message : sqlite3_errmsg(db_));
  sqlite3_free(message);
  return false;
}

bool EventStore::record(const Event& event) {
  if (!execute("BEGIN IMMEDIATE")) return false;
  bool ok = false;
  {
    Statement row(db_, "INSERT INTO events(uid, at, kind, detail) VALUES(?, ?, ?, ?)");
    Statement field(db_,
                    "INSERT OR REPLACE INTO event_fields(event_id, name, value, type)"
                    " VALUES(?, ?, ?, ?)");
    ok = row && field;
    if (ok) {
      std::string entity = clipped(event.entity, kMaxFieldName);
      std::string detail = summary(event);
      sqlite3_bind_int64(row.get(), 1, event.uid);
      sqlite3_bind_double(row.get(), 2, event.time);
      sqlite3_bind_text(row.get(), 3, entity.data(), int(entity.size()), SQLITE_TRANSIENT);
      sqlite3_bind_text(row.get(), 4, detail.data(), int(detail.size()), SQLITE_TRANSIENT);
      ok = sqlite3_step(row.get()) == SQLITE_DONE;
    }
    std::int64_t id = sqlite3_last_insert_rowid(db_);
    std::size_t kept = 0;
    for (const auto& [name, value] : event.fields) {
      if (!ok) break;
      if (kept == kMaxFields || name.size() > kMaxFieldName || name.empty()) {
        GW_LOG(0, "*** %s event: field \"%s\" dropped", event.entity.c_str(),
               clipped(name, kMaxFieldName).c_str());
        continue;
      }
      auto [type, stored] = storedField(value);
      sqlite3_reset(field.get());
      sqlite3_bind_int64(field.get(), 1, id);
      sqlite3_bind_text(field.get(), 2, name.data(), int(name.size()), SQLITE_TRANSIENT);
      bindValue(field.get(), 3, stored);
      sqlite3_bind_int(field.get(), 4, type);
      ok = sqlite3_step(field.get()) == SQLITE_DONE;
      ++kept;
    }
  }
  if (!ok) {
    GW_LOG(0, "*** Could not record a %s event: %s", event.entity.c_str(), sqlite3_errmsg(db_));
    execute("ROLLBACK");
    return false;
  }
  return execute("COMMIT");
}

long long EventStore::prune(double unixTime) {
  if (!execute("BEGIN IMMEDIATE")) return -1;
  bool ok = false;
  long long removed = 0;
  {
    Statement fields(db_,
                     "DELETE FROM event_fields WHERE event_id IN"
                     " (SELECT id FROM events WHERE at < ?)");
    Statement rows(db_, "DELETE FROM events WHERE at < ?");
    ok = fields && rows;
    if (ok) {
      sqlite3_bind_double(fields.get(), 1, unixTime);
      sqlite3_bind_double(rows.get(), 1, unixTime);
      ok = sqlite3_step(fields.get()) == SQLITE_DONE && sqlite3_step(rows.get()) == SQLITE_DONE;
      removed = sqlite3_changes(db_);
    }
  }
  if (!ok) {
    GW_LOG(0, "*** Could not forget old events: %s", sqlite3_errmsg(db_));
    execute("ROLLBACK");
    return -1;
  }
  return execute("COMMIT") ? removed : -1;
}

bool EventStore::readFields(sqlite3_stmt* q, std::int64_t id,
                            std::map<std::string, plist::Value>* fields) {
  sqlite3_reset(q);
  sqlite3_bind_int64(q, 1, id);
  int step;
  while ((step = sqlite3_step(q)) == SQLITE_ROW) {
    const unsigned char* name = sqlite3_column_text(q, 0);
    if (!name) continue;
    fields->emplace(reinterpret_cast<const char*>(name), readField(q, 1, sqlite3_column_int(q, 2)));
  }
  return step == SQLITE_DONE;
}

EventStore::Result EventStore::query(const Query& query) {
  Result result;
  std::string sql = "SELECT e.id, e.uid, e.at, e.kind FROM events e WHERE e.uid = ?";
  std::vector<plist::Value> params{plist::Value(std::int64_t(query.uid))};
  if (!query.entity.empty()) {
    sql += " AND e.kind = ?";
    params.emplace_back(query.entity);
  }
  if (query.predicate) {
    SqlCondition condition = compilePredicate(*query.predicate);
    sql += " AND (" + condition.text + ")";
    params.insert(params.end(), condition.params.begin(), condition.params.end());
  }
  const char* direction = query.ascending ? " ASC" : " DESC";
  sql += std::string(" ORDER BY ") + sortColumn(query.sortKey) + direction + ", e.id" + direction +
         " LIMIT ?";
  params.emplace_back(std::int64_t(std::min(query.limit, kGWMaxFetchLimit)));

  Deadline deadline{std::chrono::steady_clock::now() + query.budget};
  sqlite3_progress_handler(db_, 1000, checkDeadline, &deadline);
  {
    Statement q(db_, sql);
    Statement fieldsOf(db_, "SELECT name, value, type FROM event_fields WHERE event_id = ?");
    if (!q || !fieldsOf) {
      result.error = sqlite3_errmsg(db_);
    } else {
      for (std::size_t i = 0; i < params.size(); ++i) bindValue(q.get(), int(i + 1), params[i]);
      int step;
      while ((step = sqlite3_step(q.get())) == SQLITE_ROW) {
        std::map<std::string, plist::Value> fields;
        if (!readFields(fieldsOf.get(), sqlite3_column_int64(q.get(), 0), &fields)) {
          step = SQLITE_INTERRUPT;
          break;
        }
        const unsigned char* kind = sqlite3_column_text(q.get(), 3);
        result.events.push_back(GWEvent::eventWithEntity(
            kind ? reinterpret_cast<const char*>(kind) : "",
            uid_t(sqlite3_column_int64(q.get(), 1)),
            plist::Date::fromUnixTime(sqlite3_column_double(q.get(), 2)), std::move(fields)));
      }
      result.ok = step == SQLITE_DONE;
      if (!result.ok) {
        result.error = deadline.passed ? "the query ran past its time" : sqlite3_errmsg(db_);
        result.events.clear();
      }
    }
  }
  sqlite3_progress_handler(db_, 0, nullptr, nullptr);
  return result;
}

long long EventStore::count(uid_t uid, const std::string& entity) {
  Statement q(db_, entity.empty() ? "SELECT count(*) FROM events WHERE uid = ?"
                                  : "SELECT count(*) FROM events WHERE uid = ? AND kind = ?");
  if (!q) return 0;
  sqlite3_bind_int64(q.get(), 1, uid);
  if (!entity.empty()) {
    sqlite3_bind_text(q.get(), 2, entity.data(), int(entity.size()), SQLITE_TRANSIENT);
  }
  return sqlite3_step(q.get()) == SQLITE_ROW ? sqlite3_column_int64(q.get(), 0) : 0;
}

}  // namespace gw::daemon
