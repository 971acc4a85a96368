// When the agent fetches, and which entries it shows and replaces: pure decisions, checked alone.
#include <gtest/gtest.h>

#include "notification_tracker.h"
#include "refresh_schedule.h"

namespace {

using gw::agent::nextFetchTime;
using gw::agent::NotificationTracker;
using gw::agent::RefreshPolicy;
using gw::agent::StatusEntry;

TEST(RefreshScheduleTest, NextFetchIsTheEarliestMomentSomethingCanChange) {
  const RefreshPolicy policy{};  // 60 s idle, 10 s busy, 1 s spacing, 1 s after expiration
  const double last = 1000;
  struct Case {
    const char* what;
    std::optional<double> requested;
    std::vector<double> expirations;
    double expected;
  };
  const std::vector<Case> cases = {
      {"nothing pending: the idle interval", std::nullopt, {}, 1060},
      {"an item ahead: the busy interval", std::nullopt, {1300}, 1010},
      {"an item about to expire: just after it", std::nullopt, {1004}, 1005},
      {"the earliest of several", std::nullopt, {1300, 1007, 1003}, 1004},
      {"an item acted on already does not count", std::nullopt, {999, 900}, 1060},
      {"an item that expired just before the fetch: at the spacing", std::nullopt, {999.5}, 1001},
      {"a request right after a fetch waits for the spacing", 1000.2, {}, 1001},
      {"a later request is served when made", 1030, {}, 1030},
      {"a request after the idle moment changes nothing", 1090, {}, 1060},
  };
  for (const Case& c : cases) {
    EXPECT_DOUBLE_EQ(nextFetchTime(policy, last, c.requested, c.expirations), c.expected) << c.what;
  }
}

StatusEntry entry(std::string key, std::string subject, bool warning) {
  return {std::move(key), std::move(subject), "t", "b", 0, warning};
}

TEST(NotificationTrackerTest, ItemsAreShownOnceWhileListedAndAgainWhenTheyReturn) {
  NotificationTracker tracker;
  auto first = tracker.plan({entry("a", "x", true), entry("b", "y", false)});
  ASSERT_EQ(first.size(), 2u);
  tracker.shown(first[0].entry, 7);
  tracker.shown(first[1].entry, 8);
  EXPECT_TRUE(tracker.plan({entry("a", "x", true), entry("b", "y", false)}).empty());
  // "a" leaves the list and comes back: a new item as far as the user can tell.
  EXPECT_TRUE(tracker.plan({entry("b", "y", false)}).empty());
  auto back = tracker.plan({entry("a", "x", true), entry("b", "y", false)});
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back[0].entry.key, "a");
  EXPECT_EQ(back[0].replaces, 7u);  // the earlier warning about x
  // A failed send is planned again on the next list.
  tracker.failed(back[0].entry);
  EXPECT_EQ(tracker.plan({entry("a", "x", true)}).size(), 1u);
}

TEST(NotificationTrackerTest, RemembersABoundedNumberOfNotifications) {
  NotificationTracker tracker;
  const std::size_t count = NotificationTracker::kMaxSubjects + 10;
  for (std::size_t i = 0; i < count; ++i) {
    auto planned = tracker.plan({entry("k" + std::to_string(i), "s" + std::to_string(i), true)});
    ASSERT_EQ(planned.size(), 1u);
    tracker.shown(planned[0].entry, std::uint32_t(i + 1));
  }
  // The oldest subjects are forgotten, the newest still replaced.
  auto oldest = tracker.plan({entry("new0", "s0", true)});
  ASSERT_EQ(oldest.size(), 1u);
  EXPECT_EQ(oldest[0].replaces, 0u);
  auto newest = tracker.plan({entry("newN", "s" + std::to_string(count - 1), true)});
  ASSERT_EQ(newest.size(), 1u);
  EXPECT_EQ(newest[0].replaces, std::uint32_t(count));
}

}  // namespace
