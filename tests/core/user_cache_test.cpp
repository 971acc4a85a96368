#include "core/accounts/user_cache.h"

#include <gatewise/core.h>
#include <gatewise/notifications.h>
#include <gatewise/runloop.h>
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "platform/notify/center.h"
#include "support/bus_fixture.h"
#include "support/temp_root.h"

namespace {

using namespace std::chrono_literals;

gw::plist::DictionaryRef cachedUnderLock(uid_t uid) {
  std::lock_guard lock(gGWALRLock);
  return CachedUserDictionaryForUID(uid);
}

// Whether the cache of 501 stops being `cached` within ten seconds, with nobody running the loop.
bool dropsWithoutTheLoop(const gw::plist::DictionaryRef& cached) {
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (std::chrono::steady_clock::now() < deadline) {
    if (cachedUnderLock(501) != cached) return true;
    std::this_thread::sleep_for(5ms);  // waiting for the bus to forward the notification
  }
  return false;
}

TEST(UserCacheTest, ChangeNotificationDropsTheCacheAndTheNextCallRebuildsIt) {
  gwtest::sharedPrivateBus();  // before the first call registers the observer
  gw::plist::DictionaryRef first = cachedUnderLock(501);
  first->set("userName", "bob");
  EXPECT_EQ(cachedUnderLock(501), first);
  EXPECT_NE(cachedUnderLock(502), first);

  // Delivered by the run loop: a witness on the same name fires in the same dispatch.
  bool witnessed = false;
  auto witness =
      gw::notify::addObserver(kGWManagementStatusChangedNotification, "",
                              [&](const gw::notify::Notification&) { witnessed = true; });
  ASSERT_TRUE(witness);
  ASSERT_TRUE(gw::notify::postNotification(kGWManagementStatusChangedNotification, "any"));
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!witnessed && std::chrono::steady_clock::now() < deadline) {
    gw::runloop::runRunLoopOnce(100ms);
  }
  ASSERT_TRUE(witnessed);
  gw::notify::removeObserver(*witness);
  gw::plist::DictionaryRef rebuilt = cachedUnderLock(501);
  EXPECT_NE(rebuilt, first);
  EXPECT_TRUE(rebuilt->empty());
  EXPECT_EQ(cachedUnderLock(501), rebuilt);

  // Without anyone running the loop: the cache call drains the arrived notification itself,
  // under the lock its caller holds, without deadlocking on it.
  ASSERT_TRUE(gw::notify::postNotification(kGWManagementStatusChangedNotification, "any"));
  EXPECT_TRUE(dropsWithoutTheLoop(rebuilt));
}

TEST(UserCacheTest, BusDownAtTheFirstUseIsRetriedOnTheNext) {
  gwtest::PrivateBus& bus = gwtest::sharedPrivateBus();
  gwtest::TempRoot root;
  gw::accounts::forgetChangeObserverForTesting();
  gw::notify::disconnectForTesting();
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root.at("/no-bus")).c_str(), 1);
  cachedUnderLock(501)->set("userName", "bob");
  EXPECT_FALSE(gw::accounts::changeObserverRegistered());

  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
  gw::plist::DictionaryRef cached = cachedUnderLock(501);
  EXPECT_EQ(cached->find("userName")->string(), "bob");  // the cache itself served throughout
  ASSERT_TRUE(gw::accounts::changeObserverRegistered());
  ASSERT_TRUE(gw::notify::postNotification(kGWManagementStatusChangedNotification, "any"));
  EXPECT_TRUE(dropsWithoutTheLoop(cached));
}

TEST(UserCacheTest, SpinLockKnowsItsHolder) {
  gw::SpinLock lock;
  EXPECT_FALSE(lock.heldByCurrentThread());
  lock.lock();
  EXPECT_TRUE(lock.heldByCurrentThread());
  bool otherSees = true, otherGot = true;
  std::thread([&] {
    otherSees = lock.heldByCurrentThread();
    otherGot = lock.try_lock();
  }).join();
  EXPECT_FALSE(otherSees);
  EXPECT_FALSE(otherGot);
  lock.unlock();
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
}

}  // namespace
