// The recorded events of every user, in the daemon's SQLite database (the file of the usage store,
// which makes and migrates the schema): one row per event in "events" (uid, at = seconds since
// 1970, kind = the entity, detail = a readable summary) and its typed fields in "event_fields".
//
// Recording bounds what one event may hold (kMaxFields fields, names of kMaxFieldName bytes,
// values of kMaxValueBytes, cut at a character boundary). Queries select one user's events, by
// entity and a parsed predicate (compiled to parameterised SQL), sorted by time, entity or uid,
// at most kGWMaxFetchLimit rows, and are interrupted when they run past their time budget
// (sqlite3_progress_handler), so no request can hold the daemon's loop for long. One thread; its
// own connection to the file.
#pragma once

#include <gatewise/fetch_request.h>
#include <sqlite3.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "daemon/events/event.h"
#include "events/predicate.h"

namespace gw::daemon {

class EventStore {
 public:
  static constexpr std::size_t kMaxFields = 16;
  static constexpr std::size_t kMaxFieldName = 64;
  static constexpr std::size_t kMaxValueBytes = 4096;

  // Opens the database the usage store made at path; nullptr (with *error) when it cannot.
  static std::unique_ptr<EventStore> open(const std::string& path, std::string* error);
  ~EventStore();
  EventStore(const EventStore&) = delete;
  EventStore& operator=(const EventStore&) = delete;

  // Keeps event (its time already set). False (logged) when it could not.
  bool record(const Event& event);
  // Forgets every event before unixTime; how many went, or -1 (logged).
  long long prune(double unixTime);

  struct Query {
    uid_t uid = 0;
    std::string entity;  // empty: every entity
    const events::PredicateNode* predicate = nullptr;
    std::string sortKey = "time";  // "time", "entity" or "uid"
    bool ascending = true;
    std::size_t limit = kGWMaxFetchLimit;  // at most kGWMaxFetchLimit
    std::chrono::milliseconds budget{500};
  };
  struct Result {
    bool ok = false;
    std::string error;  // when !ok
    std::vector<GWEventRef> events;
  };
  Result query(const Query& query);

  // How many events of entity uid has (every entity when empty).
  long long count(uid_t uid, const std::string& entity = {});

 private:
  explicit EventStore(sqlite3* db) : db_(db) {}
  bool execute(const char* sql);
  bool readFields(sqlite3_stmt* statement, std::int64_t id,
                  std::map<std::string, plist::Value>* fields);
  sqlite3* db_;
};

}  // namespace gw::daemon
