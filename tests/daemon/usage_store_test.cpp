// The usage database: persistence, one transaction per flush, damaged files moved aside, and the
// ledger's split of a stretch of use at midnight and into curfew time.
#include "daemon/usage/usage_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "daemon/usage/usage_ledger.h"
#include "daemon_test_support.h"
#include "support/log_capture.h"
#include "support/temp_root.h"
#include "support/time_zone.h"

namespace {

using gw::daemon::UsageLedger;
using gw::daemon::UsageStore;

TEST(UsageStoreTest, UsageSurvivesReopeningAndResetForgetsADay) {
  gwtest::TempRoot root;
  std::string path = gw::daemon::defaultUsageDatabasePath();
  std::string error;
  {
    auto store = UsageStore::open(path, &error);
    ASSERT_TRUE(store) << error;
    ASSERT_TRUE(store->add({{4201, "2026-01-05", {600, 100}}, {4202, "2026-01-05", {30, 0}}}));
    ASSERT_TRUE(store->add({{4201, "2026-01-05", {60, 0}}}));
    EXPECT_TRUE(store->recordEvent(4201, 1.0, "end-logout", "test"));
  }
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(::stat(root.at("/Library/Application Support/Morvane/Tutela/State").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  auto store = UsageStore::open(path, &error);
  ASSERT_TRUE(store) << error;
  EXPECT_DOUBLE_EQ(store->usageOn(4201, "2026-01-05").used, 660);
  EXPECT_DOUBLE_EQ(store->usageOn(4201, "2026-01-05").curfewUsed, 100);
  EXPECT_DOUBLE_EQ(store->usageOn(4201, "2026-01-06").used, 0);
  EXPECT_EQ(store->eventCount(4201, "end-logout"), 1);
  ASSERT_TRUE(store->reset(4201, "2026-01-05"));
  EXPECT_DOUBLE_EQ(store->usageOn(4201, "2026-01-05").used, 0);
  EXPECT_DOUBLE_EQ(store->usageOn(4202, "2026-01-05").used, 30);
}

TEST(UsageStoreTest, ADamagedFileIsMovedAsideAndANewOneStarted) {
  gwtest::TempRoot root;
  gwtest::LogCapture log(0);
  std::string path = gw::daemon::defaultUsageDatabasePath();
  root.writeFile("/Library/Application Support/Morvane/Tutela/State/tutelad.sqlite",
                 std::string(8192, 'x'));
  std::string error;
  auto store = UsageStore::open(path, &error);
  ASSERT_TRUE(store) << error;
  EXPECT_TRUE(store->add({{1, "2026-01-05", {5, 0}}}));
  EXPECT_TRUE(log.contains("was damaged"));
  int aside = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path.substr(0, path.rfind('/')))) {
    aside += entry.path().filename().string().find("tutelad.sqlite.corrupt-") == 0;
  }
  EXPECT_EQ(aside, 1);
}

TEST(UsageLedgerTest, StretchesSplitAtMidnightAndIntoCurfewTime) {
  gwtest::TempRoot root;
  gwtest::ScopedTimeZone zone("Europe/Berlin");
  std::string error;
  auto store = UsageStore::open(gw::daemon::defaultUsageDatabasePath(), &error);
  ASSERT_TRUE(store) << error;
  auto limit = gw::daemon::parseComputerLimit(gwtest::daemon::timeLimits(
      {{"monday", "23:00:00", "23:59:59"}, {"tuesday", "00:00:00", "06:00:00"}}, {}));
  ASSERT_TRUE(limit.limit);
  UsageLedger ledger(std::move(store));
  using gwtest::daemon::local;
  ledger.count(4201, local(2026, 1, 5, 22, 30), local(2026, 1, 6, 0, 45),
               limit.limit->curfews.get());
  EXPECT_DOUBLE_EQ(ledger.usageOn(4201, "2026-01-05").used, 5400);
  EXPECT_NEAR(ledger.usageOn(4201, "2026-01-05").curfewUsed, 3600, 1);
  EXPECT_DOUBLE_EQ(ledger.usageOn(4201, "2026-01-06").used, 2700);
  EXPECT_DOUBLE_EQ(ledger.usageOn(4201, "2026-01-06").curfewUsed, 2700);
  EXPECT_TRUE(ledger.hasUnflushed());
  ASSERT_TRUE(ledger.flush());
  EXPECT_FALSE(ledger.hasUnflushed());
  // Counted once, whether read before or after the flush.
  EXPECT_DOUBLE_EQ(ledger.usageOn(4201, "2026-01-06").used, 2700);
  EXPECT_DOUBLE_EQ(ledger.store().usageOn(4201, "2026-01-06").used, 2700);
  ledger.count(4201, local(2026, 1, 6, 10, 0), local(2026, 1, 6, 10, 10), nullptr);
  EXPECT_DOUBLE_EQ(ledger.usageOn(4201, "2026-01-06").used, 3300);
  ASSERT_TRUE(ledger.reset(4201, "2026-01-06"));
  EXPECT_DOUBLE_EQ(ledger.usageOn(4201, "2026-01-06").used, 0);
}

}  // namespace
