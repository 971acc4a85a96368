// Status items: what the daemon wants a managed user to see now, and the timer a host attaches.
//
// The daemon keeps, per managed user, a list of status items: warnings that an allowance is about
// to run out, and alerts that a program or the computer is being stopped (allowance used up,
// curfew, program not allowed) or that a program did not quit. GWGetStatusItems() fetches that
// list as a keyed archive (gatewise/archive.h) and decodes it; each GWStatusItem composes its own
// title, message and spoken text. GWStatusItem archives itself under the class name
// "GWStatusItem" (classes "GWStatusItem", "NSObject"); its coder is registered when the library
// is loaded, so archivedDataWithRootObject/unarchiveObjectWithData handle items and arrays of
// them.
//
// GWTimer is a one-shot timer on the sd-event loop of the thread that arms it
// (gatewise/runloop.h): it fires when that thread runs its loop, on that thread. Neither class is
// synchronised: use an object from one thread at a time, and a timer from the thread that armed it.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>
#include <gatewise/schedule/limit_item.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

typedef struct sd_event_source sd_event_source;

namespace gw {

// Status kinds; an item without one is a warning.
inline constexpr std::string_view kGWStatusKindTerminationWarning =
    "GatewiseStatusKindTerminationWarning";
inline constexpr std::string_view kGWStatusKindAllowanceExceeded =
    "GatewiseStatusKindAllowanceExceeded";
inline constexpr std::string_view kGWStatusKindCurfewUnallowed =
    "GatewiseStatusKindCurfewUnallowed";
inline constexpr std::string_view kGWStatusKindBlacklisted = "GatewiseStatusKindBlacklisted";
inline constexpr std::string_view kGWStatusKindCouldNotQuit = "GatewiseStatusKindCouldNotQuit";

// Item kinds: the time-limits domain an item is about.
inline constexpr std::string_view kGWItemKindComputer = "com.morvane.gatewise.timelimits.computer";
inline constexpr std::string_view kGWItemKindProgram = "com.morvane.gatewise.timelimits.program";
inline constexpr std::string_view kGWItemKindGroup = "com.morvane.gatewise.timelimits.group";

class GWTimer;
using GWTimerRef = std::shared_ptr<GWTimer>;

class GW_EXPORT GWTimer : public GWObject {
 public:
  // Called on the arming thread when the timer fires, with the timer itself.
  using Callback = std::function<void(GWTimer& timer)>;

  GWTimer() = default;
  ~GWTimer() override;  // logs "Enter" at level 2 and invalidates
  GWTimer(const GWTimer&) = delete;
  GWTimer& operator=(const GWTimer&) = delete;

  // A new idle timer.
  static GWTimerRef fcTimer();

  // Arms a one-shot timer interval() seconds from now on the calling thread's run loop, replacing
  // any earlier one; callback runs once when it fires. Logs "*** Coudln't create timer" and stays
  // idle when no timer can be made. A negative or NaN interval fires at once.
  void fireWithTarget(Callback callback);
  // Disarms; the callback will not run. Logs "Enter" at level 2.
  void invalidate();
  // Whether a timer is armed and has not fired yet.
  bool isValid() const;

  // Reasons 3, 4 and 6 are warnings; the other codes are the host program's.
  bool isWarning() const { return _reason == 3 || _reason == 4 || _reason == 6; }

  double interval() const { return _interval; }
  void setInterval(double seconds) { _interval = seconds; }
  std::int32_t reason() const { return _reason; }
  void setReason(std::int32_t reason) { _reason = reason; }
  const plist::Value& userInfo() const { return _userInfo; }
  void setUserInfo(plist::Value userInfo) { _userInfo = std::move(userInfo); }

  std::string description() const override;

 private:
  static int fired(sd_event_source* source, std::uint64_t usec, void* userdata);

  sd_event_source* _timer = nullptr;  // owned
  double _interval = 0;
  plist::Value _userInfo;
  std::int32_t _reason = 0;
  Callback callback_;
};

class GWStatusItem;
using GWStatusItemRef = std::shared_ptr<GWStatusItem>;

class GW_EXPORT GWStatusItem : public GWObject {
 public:
  GWStatusItem() = default;
  ~GWStatusItem() override;  // invalidates the attached timer
  GWStatusItem(const GWStatusItem&) = delete;
  GWStatusItem& operator=(const GWStatusItem&) = delete;

  // An item with only a name, a kind and an expiration date: no id, status kind, creation date,
  // limit or timer, and pid 0.
  static GWStatusItemRef initWithName(std::string itemName, std::string itemKind,
                                      plist::Date expirationDate);

  std::optional<std::string> itemID() const { return _itemID; }
  void setItemID(std::optional<std::string> itemID) { _itemID = std::move(itemID); }
  std::string itemKind() const { return _itemKind; }
  void setItemKind(std::string itemKind) { _itemKind = std::move(itemKind); }
  std::optional<std::string> statusKind() const { return _statusKind; }
  void setStatusKind(std::optional<std::string> statusKind) { _statusKind = std::move(statusKind); }
  std::optional<plist::Date> itemCreationDate() const { return _itemCreationDate; }
  void setItemCreationDate(std::optional<plist::Date> date) { _itemCreationDate = date; }
  plist::Date expirationDate() const { return _expirationDate; }
  void setExpirationDate(plist::Date date) { _expirationDate = date; }
  std::string itemName() const { return _itemName; }
  void setItemName(std::string itemName) { _itemName = std::move(itemName); }
  GWLimitItemRef limit() const { return _limit; }
  void setLimit(GWLimitItemRef limit) { _limit = std::move(limit); }
  std::int32_t pid() const { return _pid; }
  void setPid(std::int32_t pid) { _pid = pid; }
  GWTimerRef timer() const { return _timer; }
  void setTimer(GWTimerRef timer) { _timer = std::move(timer); }
  // The host program's delegate; not retained, not archived.
  GWObjectRef delegate() const { return _delegate.lock(); }
  void setDelegate(const GWObjectRef& delegate) { _delegate = delegate; }

  // Seconds from creation to expiration, snapped to 60, 120, 180, 240 or 300 when within three
  // seconds of one (bounds exclusive). 0 without a creation date.
  double timeFromCreation() const;
  // Seconds from now to expiration; negative once expired.
  double timeRemaining() const;

  std::string title() const;
  // nullopt for an unknown status kind.
  std::optional<std::string> message() const;
  // The message alone for a could-not-quit alert, else "<title>, <message>" ("(null)" for none).
  std::string messageForTTS() const;

  bool isWarning() const;
  bool isTerminationAlert() const;
  bool isCouldNotQuitAlert() const;
  // "application", "computer", "group" or "unknown".
  std::string itemKindDisplayString() const;

  // Invalidates the attached timer and drops it.
  void stopTimer();

  // "<GWStatusItem: 0x...> - <name> - <id or empty>".
  std::string description() const override;

 private:
  std::optional<std::string> _itemID;
  std::string _itemKind;
  std::optional<std::string> _statusKind;
  std::optional<plist::Date> _itemCreationDate;
  plist::Date _expirationDate;
  std::string _itemName;
  GWTimerRef _timer;
  GWLimitItemRef _limit;
  std::int32_t _pid = 0;
  std::weak_ptr<GWObject> _delegate;
};

// The calling user's status items from the daemon (looked up afresh, 1000 ms time-out): nullptr
// when the daemon cannot be looked up; else an array, possibly empty (no items, a failed call, or
// an answer that is not a keyed archive), of object Values holding GWStatusItem.
GW_EXPORT plist::ArrayRef GWGetStatusItems();

}  // namespace gw
