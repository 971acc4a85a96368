// The events the daemon derives from what it sees: logins and logouts with the session they pair
// by, the seconds of a counted stretch, overrides that grew today's grant, and refused logins at
// most once a minute.
#include <gtest/gtest.h>

#include "daemon/events/event_service.h"
#include "daemon/usage/usage_store.h"
#include "support/temp_root.h"

namespace {

using gw::daemon::EventService;
using gw::daemon::EventStore;
using gw::daemon::Grant;
using gw::daemon::UserSessions;
using gw::plist::Date;

constexpr uid_t kMia = 4301;
constexpr double kStart = 1767600000;

Date at(double seconds) { return Date::fromUnixTime(kStart + seconds); }

class EventHooksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string path = gw::daemon::defaultUsageDatabasePath(), error;
    ASSERT_TRUE(gw::daemon::UsageStore::open(path, &error)) << error;
    auto store = EventStore::open(path, &error);
    ASSERT_TRUE(store) << error;
    service_ = std::make_unique<EventService>(std::move(store));
  }

  std::vector<gw::GWEventRef> events() {
    EventStore::Query q;
    q.uid = kMia;
    return service_->store()->query(q).events;
  }

  gwtest::TempRoot root_;
  std::unique_ptr<EventService> service_;
};

TEST_F(EventHooksTest, SessionsGiveLoginCountedStretchesAndLogout) {
  service_->sessionsChanged(kMia, UserSessions{true, true}, at(0));
  service_->sessionsChanged(kMia, UserSessions{true, true}, at(10));    // nothing new
  service_->sessionsChanged(kMia, UserSessions{true, false}, at(600));  // idle: 600 s counted
  service_->sessionsChanged(kMia, UserSessions{true, true}, at(900));
  service_->sessionsChanged(kMia, UserSessions{false, false}, at(960));  // logout: 60 s more
  auto list = events();
  ASSERT_EQ(list.size(), 4u);
  EXPECT_EQ(list[0]->entity(), "Login");
  EXPECT_EQ(list[1]->description(), "CountedSession seconds=600");
  EXPECT_EQ(list[2]->description(), "CountedSession seconds=60");
  EXPECT_EQ(list[3]->entity(), "Logout");
  EXPECT_EQ(list[3]->time(), at(960));
  EXPECT_EQ(list[0]->field("session"), list[3]->field("session"));
}

TEST_F(EventHooksTest, OverridesAreRecordedWhenTheGrantGrowsAndRefusalsOnceAMinute) {
  service_->overridesRead(kMia, "2026-01-05", Grant{1800, false}, "root", at(0));
  service_->overridesRead(kMia, "2026-01-05", Grant{1800, false}, "root", at(5));  // unchanged
  service_->overridesRead(kMia, "2026-01-05", Grant{2400, false}, "carol", at(10));
  service_->overridesRead(kMia, "2026-01-05", Grant{0, true}, "carol", at(20));
  service_->overridesRead(kMia, "2026-01-06", Grant{600, false}, "root", at(30));  // a new day
  service_->loginRefused(kMia, 2, 3600, at(40));
  service_->loginRefused(kMia, 2, 3590, at(50));  // the login stack asking again
  service_->loginRefused(kMia, 1, 100, at(101));
  auto list = events();
  ASSERT_EQ(list.size(), 6u);
  EXPECT_EQ(list[0]->description(), "Override by=root limit=computer seconds=1800");
  EXPECT_EQ(list[1]->description(), "Override by=carol limit=computer seconds=600");
  EXPECT_EQ(list[2]->description(), "Override by=carol limit=computer seconds=-1");
  EXPECT_EQ(list[3]->description(), "Override by=root limit=computer seconds=600");
  EXPECT_EQ(list[4]->description(), "RefusedLogin reason=2 seconds=3600");
  EXPECT_EQ(list[5]->description(), "RefusedLogin reason=1 seconds=100");
}

}  // namespace
