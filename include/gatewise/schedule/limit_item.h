// GWLimitItem: one entry of a managed user's time-limits preference: the whole computer, one
// program, a group of programs, sites and widgets, or a web site, with its curfews and allowances.
//
// An item wraps one mutable dictionary, _dictionary, and reads every property from it on demand
// (a missing string reads "", a missing number 0, a missing boolean false). In memory "curfews"
// holds a GWCurfews object, "appList" GWApp objects and "allowances" GWAllowance objects;
// initWithDictionary builds them from the stored form and plistRepresentation turns them back.
// Both may throw GWException named "GWLimitItem" (an app or allowance entry that cannot be read, a
// value with no stored form); the preference readers (allLimitsForUser and its siblings) catch
// that, log it and skip the entry, so they never throw. Getters hand out the held containers and
// objects themselves, not copies. Objects are not synchronised: share them only for reading.
//
// The preference is "<root>/Library/Managed
// Preferences/<user>/com.morvane.gatewise.timelimits.plist", a dictionary whose "limits-list" array
// holds the stored items in order. It is read afresh on every call, without following a link at the
// file itself; a missing or unreadable file gives no items.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>
#include <gatewise/schedule/allowance.h>
#include <gatewise/schedule/curfews.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gw {

// The values of "itemType".
inline constexpr std::string_view kGWLimitTypeComputer = "com.morvane.gatewise.timelimits.computer";
inline constexpr std::string_view kGWLimitTypeProgram = "com.morvane.gatewise.timelimits.program";
inline constexpr std::string_view kGWLimitTypeGroup = "com.morvane.gatewise.timelimits.group";
inline constexpr std::string_view kGWLimitTypeWebSite = "com.morvane.gatewise.timelimits.website";

// The fixed groupIDs of the computer item and the games group.
inline constexpr std::string_view kGWComputerGroupID = "__COMPUTER__";
inline constexpr std::string_view kGWGamesGroupID = "__GAMES__";

// The time-limits preference domain and its key holding the items.
inline constexpr std::string_view kGWTimeLimitsDomain = "com.morvane.gatewise.timelimits";
inline constexpr std::string_view kGWLimitsListKey = "limits-list";

class GWLimitItem;
using GWLimitItemRef = std::shared_ptr<GWLimitItem>;

class GW_EXPORT GWLimitItem : public GWObject {
 public:
  // An empty item (no keys at all).
  GWLimitItem();

  // Construction.
  static GWLimitItemRef init();
  // nullptr unless stored is a dictionary. "curfews" becomes a GWCurfews (unreadable curfews are
  // logged and replaced by empty ones), "appList" GWApp and "allowances" GWAllowance objects;
  // an app or allowance entry that is a property list but no record throws GWException
  // ("GWLimitItem"). Entries that are not property lists (live objects) are skipped.
  static GWLimitItemRef initWithDictionary(const plist::Value& stored);
  static GWLimitItemRef limitItemWithDictionary(const plist::Value& stored);
  // limitItemWithDictionary of the other item's live dictionary: shares its curfews, and has
  // empty "appList" and "allowances" where the source has them (their objects are no property
  // lists). Use plistRepresentation + limitItemWithDictionary for a full copy.
  static GWLimitItemRef limitItemWithLimitItem(const GWLimitItemRef& item);
  // A program item with that bundleID, enabled.
  static GWLimitItemRef limitItemWithBundleID(std::string bundleID);
  // A program item for the application at fileURL ("file://" URL or plain path): its path and
  // bundle name, enabled.
  static GWLimitItemRef limitItemWithURL(std::string_view fileURL);
  // A group with that name, a new UUID as groupID, allowancesActive.
  static GWLimitItemRef groupWithName(std::string name);
  // The group "Games", groupID "__GAMES__", allowancesActive.
  static GWLimitItemRef gamesGroup();
  // The computer item: name "Computer", groupID "__COMPUTER__", allowancesActive, not enabled.
  static GWLimitItemRef computerLimit();

  // The stored form: a new dictionary; throws GWException ("GWLimitItem") for a value that has
  // none.
  plist::DictionaryRef plistRepresentation() const;
  // The live dictionary.
  const plist::DictionaryRef& dictionary() const { return _dictionary; }

  // Reading the preference. nullopt userName = the current user (the process's user name).
  // Items that throw while being read are logged and skipped.
  static std::vector<GWLimitItemRef> allLimitsForUser(std::optional<std::string_view> userName);
  // The item whose uniqueID equals id, searching from the last to the first (a later duplicate
  // wins); nullptr if none.
  static GWLimitItemRef limitWithID(std::string_view id, std::optional<std::string_view> userName);
  // The last computer item (games group), or nullptr.
  static GWLimitItemRef computerLimitForUser(std::optional<std::string_view> userName);
  static GWLimitItemRef computerLimitFromArray(const std::vector<GWLimitItemRef>& items);
  static GWLimitItemRef gamesGroupLimitForUser(std::optional<std::string_view> userName);
  static GWLimitItemRef gamesGroupLimitFromArray(const std::vector<GWLimitItemRef>& items);

  // Kinds and identity.
  bool isComputer() const;
  bool isProgram() const;
  bool isGroup() const;
  bool isWebSite() const;
  bool isGamesGroup() const;
  // bundleID of a program, groupID of a group, "__COMPUTER__" for the computer item, nil for a
  // web site (and for an item of no known kind).
  std::optional<std::string> uniqueID() const;
  // Any allowance in the list, or any curfew range.
  bool hasActiveSchedule() const;

  // Accessors. Setters given nullopt/nullptr remove the key.
  std::string itemType() const;
  void setItemType(std::optional<std::string> type);
  bool enabled() const;
  void setEnabled(bool enabled);
  std::string name() const;
  void setName(std::optional<std::string> name);
  std::optional<std::string> bundleID() const;
  void setBundleID(std::optional<std::string> bundleID);
  std::optional<std::string> groupID() const;
  void setGroupID(std::optional<std::string> groupID);
  std::optional<std::string> path() const;
  void setPath(std::optional<std::string> path);
  // Elements: object Values holding GWApp. nullptr when absent.
  plist::ArrayRef appList() const;
  void setAppList(plist::ArrayRef apps);
  // Kept as stored. nullptr when absent.
  plist::ArrayRef siteList() const;
  void setSiteList(plist::ArrayRef sites);
  plist::ArrayRef widgetList() const;
  void setWidgetList(plist::ArrayRef widgets);
  // nullptr when absent (or not curfews).
  GWCurfewsRef curfews() const;
  void setCurfews(GWCurfewsRef curfews);
  bool allowancesActive() const;
  void setAllowancesActive(bool active);
  // Elements: object Values holding GWAllowance; nullptr when absent.
  plist::ArrayRef allowances() const;
  void setAllowances(plist::ArrayRef allowances);
  std::int32_t timeLastUpdated() const;
  void setTimeLastUpdated(std::int32_t value);

  // The work-day and weekend allowances (see gatewise/schedule/allowance.h).
  GWAllowanceRef weekdayAllowance() const;
  GWAllowanceRef weekendAllowance() const;
  void setWeekdayAllowanceSeconds(std::int32_t seconds);
  void setWeekendAllowanceSeconds(std::int32_t seconds);
  void removeWeekdayAllowance();
  void removeWeekendAllowance();

  // Texts: "1 application, 2 web sites, 1 Vistrel widget", "Allowances set", and the two together.
  std::string listDescription() const;
  std::string scheduleDescription() const;
  std::string briefDescription() const;
  std::string description() const override;

 private:
  std::optional<std::string> stringFor(std::string_view key) const;
  void setStringFor(std::string_view key, std::optional<std::string> value);
  plist::ArrayRef arrayFor(std::string_view key) const;
  void setArrayFor(std::string_view key, plist::ArrayRef value);

  plist::DictionaryRef _dictionary;
};

}  // namespace gw
