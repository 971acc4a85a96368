// The event store against a database of many thousand events: queries by time range, entity and
// field, sorting and limits, values that stay values, the time budget, retention, and the step
// from the first schema.
#include "daemon/events/event_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "daemon/events/event_service.h"
#include "daemon/usage/usage_store.h"
#include "support/log_capture.h"
#include "support/temp_root.h"

namespace {

using gw::daemon::Event;
using gw::daemon::EventStore;
using gw::plist::Value;

constexpr double kStart = 1767600000;  // 2026-01-05 08:00 UTC
constexpr int kEvents = 12000;

class EventStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = gw::daemon::defaultUsageDatabasePath();
    std::string error;
    ASSERT_TRUE(gw::daemon::UsageStore::open(path_, &error)) << error;
    store_ = EventStore::open(path_, &error);
    ASSERT_TRUE(store_) << error;
  }

  // One event a minute, alternating between two users and cycling through four entities.
  void fill() {
    for (int i = 0; i < kEvents; ++i) {
      Event e{"", uid_t(4301 + i % 2), kStart + 60.0 * i, {}};
      switch (i % 4) {
        case 0:
        case 1:
          e.entity = "BlockedLaunch";
          e.fields = {{"path", Value("/usr/games/game" + std::to_string(i % 10))},
                      {"bundleID", Value("org.example.game")},
                      {"reason", Value(i % 3)}};
          break;
        case 2:
          e.entity = "VisitedPage";
          e.fields = {{"url", Value("https://site" + std::to_string(i % 7) + ".example/")},
                      {"title", Value("Site")}};
          break;
        default:
          e.entity = "CountedSession";
          e.fields = {{"seconds", Value(std::int64_t(i))}};
      }
      ASSERT_TRUE(store_->record(e));
    }
  }

  EventStore::Result query(uid_t uid, const std::string& predicate, std::string entity = {},
                           std::size_t limit = gw::kGWMaxFetchLimit) {
    auto parsed = gw::events::parsePredicate(predicate);
    EXPECT_TRUE(parsed.ok) << parsed.error;
    EventStore::Query q;
    q.uid = uid;
    q.entity = std::move(entity);
    q.predicate = parsed.root.get();
    q.limit = limit;
    q.budget = std::chrono::seconds(30);
    return store_->query(q);
  }

  gwtest::TempRoot root_;
  std::string path_;
  std::unique_ptr<EventStore> store_;
};

TEST_F(EventStoreTest, QueriesByTimeEntityAndFieldOverManyThousandEvents) {
  fill();
  // Hour 10 of the first day: events 120..179, of which uid 4301 has the even ones.
  auto hour = query(4301, "time >= 2026-01-05T10:00:00Z AND time < 2026-01-05T11:00:00Z");
  ASSERT_TRUE(hour.ok) << hour.error;
  ASSERT_EQ(hour.events.size(), 30u);
  EXPECT_DOUBLE_EQ(hour.events.front()->time().unixTime(), kStart + 60.0 * 120);
  EXPECT_DOUBLE_EQ(hour.events.back()->time().unixTime(), kStart + 60.0 * 178);
  for (std::size_t i = 1; i < hour.events.size(); ++i) {
    EXPECT_LT(hour.events[i - 1]->time(), hour.events[i]->time());
  }

  // Entity through the message and through the predicate agree: uid 4302 has i % 4 == 1 and 3.
  EXPECT_EQ(query(4302, "", "BlockedLaunch").events.size(), std::size_t(kEvents / 4));
  EXPECT_EQ(query(4302, "entity == 'CountedSession'").events.size(), std::size_t(kEvents / 4));
  EXPECT_EQ(query(4302, "entity == 'VisitedPage'").events.size(), 0u);

  // Fields, typed: a number compared as a number, strings by prefix and substring.
  auto long_ = query(4302, "seconds >= 11000", "CountedSession");
  ASSERT_TRUE(long_.ok);
  EXPECT_EQ(long_.events.size(), 250u);  // i = 11003, 11007, ... 11999
  EXPECT_EQ(long_.events.front()->field("seconds").intValue(), 11003);
  auto pages = query(4301, "url CONTAINS 'site3.' AND NOT title != 'Site'");
  ASSERT_TRUE(pages.ok);
  std::size_t expected = 0;
  for (int i = 2; i < kEvents; i += 4) expected += (i % 7 == 3);
  EXPECT_EQ(pages.events.size(), expected);
  EXPECT_EQ(pages.events.front()->field("url").string(), "https://site3.example/");
  auto games = query(4301, "path BEGINSWITH '/usr/games/game4' AND reason == 0 OR uid == 0");
  ASSERT_TRUE(games.ok);
  for (const auto& e : games.events) {
    EXPECT_EQ(e->field("path").string(), "/usr/games/game4");
    EXPECT_EQ(e->field("reason").intValue(), 0);
  }
  EXPECT_FALSE(games.events.empty());

  // Values are bound, never pasted: quotes and SQL in a literal are only text to compare.
  EXPECT_EQ(query(4301, "url == \"x' OR 1=1 --\"").events.size(), 0u);
  EXPECT_EQ(query(4301, "path BEGINSWITH \"%\"").events.size(), 0u);

  // The limit, and the newest first when sorted descending.
  EXPECT_EQ(query(4301, "").events.size(), std::size_t(kEvents / 2));
  EXPECT_EQ(query(4301, "", {}, 5).events.size(), 5u);
  EventStore::Query newest;
  newest.uid = 4301;
  newest.ascending = false;
  newest.limit = 3;
  auto last = store_->query(newest);
  ASSERT_EQ(last.events.size(), 3u);
  EXPECT_DOUBLE_EQ(last.events[0]->time().unixTime(), kStart + 60.0 * (kEvents - 2));
}

TEST_F(EventStoreTest, AQueryPastItsBudgetIsInterruptedAndAnswersNothing) {
  fill();
  auto parsed = gw::events::parsePredicate("title CONTAINS 'nothing like this'");
  EventStore::Query q;
  q.uid = 4301;
  q.predicate = parsed.root.get();
  q.budget = std::chrono::milliseconds(0);
  auto result = store_->query(q);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.error, "the query ran past its time");
  EXPECT_TRUE(result.events.empty());
  q.budget = std::chrono::seconds(30);
  EXPECT_TRUE(store_->query(q).ok);  // the handler is gone again
}

TEST_F(EventStoreTest, RecordingBoundsFieldsAndPruningForgetsOldEvents) {
  std::map<std::string, Value> many;
  for (int i = 0; i < 40; ++i) many["f" + std::to_string(100 + i)] = Value(i);
  many["url"] = Value(std::string(10000, 'a') + "\xc3\xa9");
  ASSERT_TRUE(store_->record({"VisitedPage", 4301, kStart, many}));
  auto all = query(4301, "");
  ASSERT_EQ(all.events.size(), 1u);
  EXPECT_EQ(all.events[0]->fields().size(), EventStore::kMaxFields);
  ASSERT_TRUE(
      store_->record({"VisitedPage", 4301, kStart + 1, {{"url", Value(std::string(5000, 'b'))}}}));
  EXPECT_EQ(query(4301, "time > 1767600000").events[0]->field("url").string().size(),
            EventStore::kMaxValueBytes);

  // Retention: what is older than the configured days goes, at most once an hour.
  for (int day = 0; day < 40; ++day) {
    ASSERT_TRUE(store_->record({"Login", 4302, kStart - day * 86400.0, {{"session", Value("s")}}}));
  }
  root_.writeFile("/Library/Preferences/com.morvane.Gatewise.plist",
                  "<plist><dict><key>eventRetentionDays</key><integer>7</integer></dict></plist>");
  EXPECT_EQ(gw::daemon::EventService::retentionDays(), 7);
  gw::daemon::EventService service(std::move(store_));
  auto now = gw::plist::Date::fromUnixTime(kStart);
  service.maybePrune(now, 1000);
  EXPECT_EQ(service.store()->count(4302), 8);  // days 0..7 back: a week ago exactly is kept
  ASSERT_TRUE(service.store()->record({"Login", 4302, kStart - 20 * 86400.0, {}}));
  service.maybePrune(now, 1000 + gw::daemon::kPruneIntervalMicroseconds - 1);
  EXPECT_EQ(service.store()->count(4302), 9);  // not yet an hour later
  service.maybePrune(now, 1000 + gw::daemon::kPruneIntervalMicroseconds);
  EXPECT_EQ(service.store()->count(4302), 8);
  EXPECT_EQ(service.store()->count(4301), 2);

  root_.writeFile("/Library/Preferences/com.morvane.Gatewise.plist",
                  "<plist><dict><key>eventRetentionDays</key><string>x</string></dict></plist>");
  EXPECT_EQ(gw::daemon::EventService::retentionDays(), gw::daemon::kDefaultEventRetentionDays);
}

TEST(EventSchemaTest, AFirstSchemaDatabaseKeepsItsEventsAndGainsTheNewTables) {
  gwtest::TempRoot root;
  std::string path = gw::daemon::defaultUsageDatabasePath();
  std::string error;
  { ASSERT_TRUE(gw::daemon::UsageStore::open(path, &error)) << error; }
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  // Back to the first schema, with one event in it.
  ASSERT_EQ(
      sqlite3_exec(db,
                   "DROP TABLE event_fields; DROP INDEX events_by_uid_time;"
                   "DROP INDEX events_by_uid_kind_time;"
                   "INSERT INTO events(uid, at, kind, detail) VALUES(4301, 5, 'TimeEnded', '');"
                   "PRAGMA user_version=1;",
                   nullptr, nullptr, nullptr),
      SQLITE_OK);
  sqlite3_close(db);
  EXPECT_FALSE(EventStore::open(path, &error));  // not migrated yet
  ASSERT_TRUE(gw::daemon::UsageStore::open(path, &error)) << error;
  auto store = EventStore::open(path, &error);
  ASSERT_TRUE(store) << error;
  EXPECT_EQ(store->count(4301, "TimeEnded"), 1);
  EXPECT_TRUE(store->record({"TimeEnded", 4301, 6, {{"action", Value("none")}}}));
  EXPECT_EQ(store->count(4301), 2);
}

}  // namespace
