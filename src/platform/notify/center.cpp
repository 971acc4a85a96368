// Observing: one process-wide connection, its matches, and the dispatch of arriving signals.
//
// Every use of the connection happens under one recursive mutex: sd-bus is not thread-safe, and a
// callback may add or remove observers or drain again on the same thread. The connection's socket
// is watched by an I/O source on the default event loop of the thread that opened it; draining from
// any other thread takes the same mutex (try-lock, so a thread that holds a lock a callback waits
// for can never deadlock against the dispatching thread).
#include "platform/notify/center.h"

#include <gatewise/log.h>
#include <gatewise/notifications.h>
#include <gatewise/runloop.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "platform/notify/system_bus.h"

namespace gw::notify {
namespace {

struct Observer {
  std::string name;
  std::string object;
  std::shared_ptr<const Callback> callback;
  sd_bus_slot* slot = nullptr;
};

class Center {
 public:
  static Center& shared() {
    static Center* center = new Center();  // lives as long as the process; never torn down
    return *center;
  }

  std::optional<ObserverID> add(std::string_view name, std::string_view object, Callback callback);
  void remove(ObserverID id);
  void drain();
  void disconnectForTesting() {
    std::lock_guard lock(mutex_);
    disconnectLocked();
    nextReconnect_ = {};
  }

 private:
  bool connectLocked(std::string* error);
  bool installMatchLocked(Observer& observer);
  void disconnectLocked();
  void reconnectLocked();
  bool ensureConnectedLocked(std::string* error);
  static int onSignal(sd_bus_message* message, void* userdata, sd_bus_error* error);
  static int onReadable(sd_event_source* source, int fd, std::uint32_t events, void* userdata);
  void processLocked();

  std::recursive_mutex mutex_;
  BusPtr bus_;
  sd_event_source* watch_ = nullptr;
  std::map<ObserverID, std::unique_ptr<Observer>> observers_;
  ObserverID nextID_ = 1;
  std::chrono::steady_clock::time_point nextReconnect_{};
};

// After the bus went away, draining tries again at most this often: a bus that accepts but never
// answers must not cost every drain a full time-out.
constexpr std::chrono::seconds kReconnectInterval{5};

// D-Bus match rules quote values in single quotes with no escape for the quote itself.
bool canBeMatched(std::string_view name) {
  return name.find('\'') == std::string_view::npos && name.find('\\') == std::string_view::npos;
}

plist::DictionaryRef readUserInfo(const char* xml, std::string_view name) {
  if (!xml || !*xml) return nullptr;
  plist::ReadResult result = plist::readPropertyList(std::string_view(xml));
  if (!result || !result.value->isDictionary()) {
    GW_LOG(0, "*** Ignoring unreadable user info of %.*s: %s", int(name.size()), name.data(),
           result ? "not a dictionary" : result.error.c_str());
    return nullptr;
  }
  return result.value->dictionary();
}

bool Center::connectLocked(std::string* error) {
  if (bus_) return true;
  BusPtr bus = openSystemBus(error);
  if (!bus) return false;
  sd_event* loop = runloop::currentRunLoop();
  if (loop) {
    int r = sd_event_add_io(loop, &watch_, sd_bus_get_fd(bus.get()), EPOLLIN, &Center::onReadable,
                            this);
    if (r < 0) {
      *error = std::string("cannot watch the bus connection: ") + std::strerror(-r);
      return false;
    }
  }
  bus_ = std::move(bus);
  return true;
}

std::optional<ObserverID> Center::add(std::string_view name, std::string_view object,
                                      Callback callback) {
  if (!canBeMatched(name)) {
    GW_LOG(0, "*** Can't observe %.*s: quotes and backslashes can't be matched", int(name.size()),
           name.data());
    return std::nullopt;
  }
  std::lock_guard lock(mutex_);
  std::string error;
  if (!ensureConnectedLocked(&error)) {
    GW_LOG(0, "*** Can't observe %.*s: %s", int(name.size()), name.data(), error.c_str());
    return std::nullopt;
  }
  auto observer = std::make_unique<Observer>();
  observer->name = name;
  observer->object = object;
  observer->callback = std::make_shared<const Callback>(std::move(callback));
  if (!installMatchLocked(*observer)) return std::nullopt;
  ObserverID id = nextID_++;
  observers_.emplace(id, std::move(observer));
  // The synchronous match call may have read signals that no socket event will announce again.
  processLocked();
  return id;
}

bool Center::installMatchLocked(Observer& observer) {
  std::string rule = std::string("type='signal',path='") + kObjectPath + "',interface='" +
                     kInterface + "',member='" + kSignalName + "'";
  if (!observer.name.empty()) rule += ",arg0='" + observer.name + "'";
  int r = sd_bus_add_match(bus_.get(), &observer.slot, rule.c_str(), &Center::onSignal, &observer);
  if (r < 0) {
    GW_LOG(0, "*** Can't observe %@: %s", observer.name, std::strerror(-r));
    return false;
  }
  return true;
}

// The connection failed (the bus went away): stop watching it and forget its matches; the
// observers stay registered and are installed again on the next connection.
void Center::disconnectLocked() {
  watch_ = sd_event_source_disable_unref(watch_);
  for (auto& [id, observer] : observers_) observer->slot = sd_bus_slot_unref(observer->slot);
  bus_.reset();
  nextReconnect_ = std::chrono::steady_clock::now() + kReconnectInterval;
}

bool Center::ensureConnectedLocked(std::string* error) {
  if (bus_) return true;
  if (!connectLocked(error)) return false;
  for (auto& [id, observer] : observers_) installMatchLocked(*observer);
  return true;
}

void Center::reconnectLocked() {
  if (bus_ || observers_.empty() || std::chrono::steady_clock::now() < nextReconnect_) return;
  nextReconnect_ = std::chrono::steady_clock::now() + kReconnectInterval;
  std::string error;
  if (!ensureConnectedLocked(&error)) {
    GW_LOG(1, "*** Notification connection still down: %s", error.c_str());
    return;
  }
  GW_LOG(1, "Notification connection restored");
}

void Center::remove(ObserverID id) {
  std::lock_guard lock(mutex_);
  auto found = observers_.find(id);
  if (found == observers_.end()) return;
  sd_bus_slot_unref(found->second->slot);
  observers_.erase(found);
}

void Center::processLocked() {
  if (!bus_) return;
  for (;;) {
    int r = sd_bus_process(bus_.get(), nullptr);
    if (r < 0) {
      GW_LOG(0, "*** Notification connection failed: %s", std::strerror(-r));
      disconnectLocked();
    }
    if (r <= 0) return;
  }
}

void Center::drain() {
  std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock.owns_lock()) return;
  reconnectLocked();
  processLocked();
}

int Center::onReadable(sd_event_source*, int, std::uint32_t, void* userdata) {
  static_cast<Center*>(userdata)->drain();
  return 0;
}

int Center::onSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
  auto* observer = static_cast<Observer*>(userdata);
  const char *name = nullptr, *object = nullptr, *info = nullptr;
  if (sd_bus_message_read(message, "sss", &name, &object, &info) < 0) return 0;
  if (!observer->object.empty() && observer->object != object) return 0;
  Notification notification{name, object, readUserInfo(info, name)};
  // The observer may be removed by its own callback; keep the callback alive while it runs.
  std::shared_ptr<const Callback> callback = observer->callback;
  try {
    (*callback)(notification);
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
  return 0;
}

}  // namespace

std::optional<ObserverID> addObserver(std::string_view name, std::string_view object,
                                      Callback callback) {
  return Center::shared().add(name, object, std::move(callback));
}

void removeObserver(ObserverID observer) { Center::shared().remove(observer); }

void drainPendingNotifications() { Center::shared().drain(); }

void disconnectForTesting() { Center::shared().disconnectForTesting(); }

}  // namespace gw::notify
