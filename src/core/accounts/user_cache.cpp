// The launch checks' per-user cache, its spin lock, and the observer that drops it when managed
// settings change.
#include "core/accounts/user_cache.h"

#include <gatewise/core.h>
#include <gatewise/log.h>
#include <gatewise/notifications.h>
#include <sched.h>

#include <mutex>
#include <optional>

gw::SpinLock gGWALRLock;

const char kGWManagementStatusChangedNotification[] =
    "com.morvane.QRM._managementStatusChangedForDomains";

namespace gw {

void SpinLock::lock() {
  for (int spins = 0; locked_.exchange(true, std::memory_order_acquire); ++spins) {
    // Holders keep the lock for one daemon exchange at most: yield rather than burn the core.
    if (spins > 64) ::sched_yield();
  }
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

bool SpinLock::try_lock() {
  if (locked_.exchange(true, std::memory_order_acquire)) return false;
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  return true;
}

void SpinLock::unlock() {
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  locked_.store(false, std::memory_order_release);
}

bool SpinLock::heldByCurrentThread() const {
  return locked_.load(std::memory_order_acquire) &&
         owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

}  // namespace gw

namespace {

// Guarded by gGWALRLock. Keys are user ids in decimal, as dictionary keys are strings.
gw::plist::DictionaryRef gUserCache;

// The change observer, once registered. A bus that is down at the first use must not leave the
// cache without one for the life of the process: every use tries again until it is in place.
std::mutex gObserverMutex;
std::optional<gw::notify::ObserverID> gChangeObserver;
bool gObserverFailureLogged = false;

void registerChangeObserver() {
  std::lock_guard lock(gObserverMutex);
  if (gChangeObserver) return;
  // Every managing tool posts the change with its own object: observe it from any sender.
  gChangeObserver = gw::notify::addObserver(
      kGWManagementStatusChangedNotification, "",
      [](const gw::notify::Notification&) { QRMSettingsChangedCallback(); });
  if (gChangeObserver) {
    gObserverFailureLogged = false;
  } else if (!gObserverFailureLogged) {
    gObserverFailureLogged = true;
    GW_LOG(0, "*** Couldn't observe %s yet: trying again on the next use of the per-user cache",
           kGWManagementStatusChangedNotification);
  }
}

}  // namespace

namespace gw::accounts {

void forgetChangeObserverForTesting() {
  std::lock_guard lock(gObserverMutex);
  if (gChangeObserver) gw::notify::removeObserver(*gChangeObserver);
  gChangeObserver.reset();
  gObserverFailureLogged = false;
}

bool changeObserverRegistered() {
  std::lock_guard lock(gObserverMutex);
  return gChangeObserver.has_value();
}

}  // namespace gw::accounts

void QRMSettingsChangedCallback() {
  GW_LOG(2, "managed settings changed: dropping the per-user cache");
  // Delivered either from the host's run loop (lock not held) or while CachedUserDictionaryForUID
  // drains notifications under the lock its caller holds.
  if (gGWALRLock.heldByCurrentThread()) {
    gUserCache.reset();
    return;
  }
  std::lock_guard lock(gGWALRLock);
  gUserCache.reset();
}

gw::plist::DictionaryRef CachedUserDictionaryForUID(uid_t uid) {
  if (!gUserCache) gUserCache = gw::plist::Dictionary::make();
  registerChangeObserver();
  gw::notify::drainPendingNotifications();
  if (!gUserCache) gUserCache = gw::plist::Dictionary::make();
  std::string key = std::to_string(uid);
  if (const gw::plist::Value* entry = gUserCache->find(key); entry && entry->isDictionary()) {
    return entry->dictionary();
  }
  auto entry = gw::plist::Dictionary::make();
  gUserCache->set(key, entry);
  return entry;
}
