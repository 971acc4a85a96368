// GWLimitItem: construction, the stored-form conversions, kinds and accessors.
#include <gatewise/apps.h>
#include <gatewise/core.h>
#include <gatewise/exception.h>
#include <gatewise/log.h>
#include <gatewise/schedule/limit_item.h>

namespace gw {
namespace {

constexpr const char kInitFunction[] = "-[GWLimitItem initWithDictionary:]";
constexpr const char kPlistFunction[] = "-[GWLimitItem plistRepresentation]";

bool isPropertyList(const plist::Value& value) {
  return plist::isValidPropertyList(value, plist::Format::XML);
}

// The stored elements of a list turned into objects by make; stored elements that give no object
// raise, elements that are no property list (live objects) are passed over.
template <class Make>
plist::ArrayRef upgradedList(const plist::Value& stored, Make make, const char* what) {
  auto list = plist::Array::make();
  list->mutableItems().reserve(8);
  const plist::Array* elements = stored.ifArray();
  if (!elements) return list;
  for (const plist::Value& element : *elements) {
    if (!isPropertyList(element)) continue;
    GWObjectRef object = make(element);
    if (!object) {
      throw GWException("GWLimitItem", format("%s -- Couldn't upgrade %s from property list.",
                                              kInitFunction, what));
    }
    list->append(std::move(object));
  }
  return list;
}

// The path of a "file://" URL with its percent-escapes decoded; a plain path comes back as it is.
std::string pathOfFileURL(std::string_view url) {
  if (!url.starts_with("file://")) return std::string(url);
  url.remove_prefix(7);
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string path;
  for (std::size_t i = 0; i < url.size(); ++i) {
    if (url[i] == '%' && i + 2 < url.size() && hex(url[i + 1]) >= 0 && hex(url[i + 2]) >= 0) {
      path += char(hex(url[i + 1]) * 16 + hex(url[i + 2]));
      i += 2;
    } else {
      path += url[i];
    }
  }
  return path;
}

plist::Value storedForm(const plist::Value& element) {
  if (auto app = element.ifObject<GWApp>()) return app->plistRepresentation();
  if (auto allowance = element.ifObject<GWAllowance>()) return allowance->plistRepresentation();
  if (isPropertyList(element)) return element;
  throw GWException("GWLimitItem",
                    format("%s -- Encountered an object that couldn't be represented as a property "
                           "list item.",
                           kPlistFunction));
}

}  // namespace

GWLimitItem::GWLimitItem() : _dictionary(plist::Dictionary::make()) {}

GWLimitItemRef GWLimitItem::init() { return std::make_shared<GWLimitItem>(); }

GWLimitItemRef GWLimitItem::initWithDictionary(const plist::Value& stored) {
  if (!stored.isDictionary()) return nullptr;
  auto item = init();
  item->_dictionary = plist::mutableCopy(stored).dictionary();
  plist::Dictionary& d = *item->_dictionary;

  if (const plist::Value* curfews = d.find("curfews"); curfews && isPropertyList(*curfews)) {
    GWCurfewsRef upgraded = GWCurfews::curfewsWithDictionary(*curfews);
    if (!upgraded) {
      GW_LOG(0, "%s -- Couldn't upgrade curfews from property list. Using empty curfews dict.",
             kInitFunction);
      upgraded = GWCurfews::curfews();
    }
    d.set("curfews", upgraded);
  }
  if (const plist::Value* apps = d.find("appList")) {
    d.set(
        "appList",
        upgradedList(
            *apps, [](const plist::Value& v) -> GWObjectRef { return GWApp::appWithDictionary(v); },
            "an app"));
  }
  if (const plist::Value* allowances = d.find("allowances")) {
    d.set("allowances", upgradedList(
                            *allowances,
                            [](const plist::Value& v) -> GWObjectRef {
                              return GWAllowance::allowanceWithDictionary(v);
                            },
                            "an allowance"));
  }
  return item;
}

GWLimitItemRef GWLimitItem::limitItemWithDictionary(const plist::Value& stored) {
  return initWithDictionary(stored);
}

GWLimitItemRef GWLimitItem::limitItemWithLimitItem(const GWLimitItemRef& item) {
  if (!item) return nullptr;
  return limitItemWithDictionary(item->_dictionary);
}

GWLimitItemRef GWLimitItem::limitItemWithBundleID(std::string bundleID) {
  auto item = init();
  item->setItemType(std::string(kGWLimitTypeProgram));
  item->setBundleID(std::move(bundleID));
  item->setEnabled(true);
  return item;
}

GWLimitItemRef GWLimitItem::limitItemWithURL(std::string_view fileURL) {
  auto item = init();
  item->setItemType(std::string(kGWLimitTypeProgram));
  item->setPath(pathOfFileURL(fileURL));
  item->setName(GWURLBundleName(fileURL));
  item->setEnabled(true);
  return item;
}

GWLimitItemRef GWLimitItem::groupWithName(std::string name) {
  auto item = init();
  item->setItemType(std::string(kGWLimitTypeGroup));
  item->setName(std::move(name));
  item->setGroupID(UUIDString());
  item->setAllowancesActive(true);
  return item;
}

GWLimitItemRef GWLimitItem::gamesGroup() {
  auto item = groupWithName("Games");
  item->setGroupID(std::string(kGWGamesGroupID));
  item->setAllowancesActive(true);
  return item;
}

GWLimitItemRef GWLimitItem::computerLimit() {
  auto item = init();
  item->setItemType(std::string(kGWLimitTypeComputer));
  item->setName("Computer");
  item->setGroupID(std::string(kGWComputerGroupID));
  item->setAllowancesActive(true);
  return item;
}

plist::DictionaryRef GWLimitItem::plistRepresentation() const {
  auto stored = plist::Dictionary::make();
  for (const auto& [key, value] : *_dictionary) {
    if ((key == "allowances" || key == "appList") && value.isArray()) {
      auto list = plist::Array::make();
      for (const plist::Value& element : *value.array()) list->append(storedForm(element));
      stored->set(key, list);
    } else if (isPropertyList(value)) {
      stored->set(key, value);
    } else if (auto curfews = value.ifObject<GWCurfews>()) {
      stored->set(key, curfews->plistRepresentation());
    } else if (auto app = value.ifObject<GWApp>()) {
      stored->set(key, app->plistRepresentation());
    } else if (auto allowance = value.ifObject<GWAllowance>()) {
      stored->set(key, allowance->plistRepresentation());
    } else {
      throw GWException(
          "GWLimitItem",
          format("%s -- Encountered an object that couldn't be represented as a property list "
                 "item.",
                 kPlistFunction));
    }
  }
  return stored;
}

bool GWLimitItem::isComputer() const { return itemType() == kGWLimitTypeComputer; }
bool GWLimitItem::isProgram() const { return itemType() == kGWLimitTypeProgram; }
bool GWLimitItem::isGroup() const { return itemType() == kGWLimitTypeGroup; }
bool GWLimitItem::isWebSite() const { return itemType() == kGWLimitTypeWebSite; }
bool GWLimitItem::isGamesGroup() const { return isGroup() && groupID() == kGWGamesGroupID; }

std::optional<std::string> GWLimitItem::uniqueID() const {
  if (isComputer()) return std::string(kGWComputerGroupID);
  if (isProgram()) return bundleID();
  if (isGroup()) return groupID();
  return std::nullopt;
}

bool GWLimitItem::hasActiveSchedule() const {
  plist::ArrayRef list = allowances();
  if (list && !list->empty()) return true;
  GWCurfewsRef held = curfews();
  return held && held->hasCurfews();
}

std::string GWLimitItem::itemType() const { return stringFor("itemType").value_or(""); }
void GWLimitItem::setItemType(std::optional<std::string> type) {
  setStringFor("itemType", std::move(type));
}
bool GWLimitItem::enabled() const { return _dictionary->get("enabled").boolValue(); }
void GWLimitItem::setEnabled(bool enabled) { _dictionary->set("enabled", enabled); }
std::string GWLimitItem::name() const { return stringFor("name").value_or(""); }
void GWLimitItem::setName(std::optional<std::string> name) {
  setStringFor("name", std::move(name));
}
std::optional<std::string> GWLimitItem::bundleID() const { return stringFor("bundleID"); }
void GWLimitItem::setBundleID(std::optional<std::string> bundleID) {
  setStringFor("bundleID", std::move(bundleID));
}
std::optional<std::string> GWLimitItem::groupID() const { return stringFor("groupID"); }
void GWLimitItem::setGroupID(std::optional<std::string> groupID) {
  setStringFor("groupID", std::move(groupID));
}
std::optional<std::string> GWLimitItem::path() const { return stringFor("path"); }
void GWLimitItem::setPath(std::optional<std::string> path) {
  setStringFor("path", std::move(path));
}

plist::ArrayRef GWLimitItem::appList() const { return arrayFor("appList"); }
void GWLimitItem::setAppList(plist::ArrayRef apps) { setArrayFor("appList", std::move(apps)); }
plist::ArrayRef GWLimitItem::siteList() const { return arrayFor("siteList"); }
void GWLimitItem::setSiteList(plist::ArrayRef sites) { setArrayFor("siteList", std::move(sites)); }
plist::ArrayRef GWLimitItem::widgetList() const { return arrayFor("widgetList"); }
void GWLimitItem::setWidgetList(plist::ArrayRef widgets) {
  setArrayFor("widgetList", std::move(widgets));
}
plist::ArrayRef GWLimitItem::allowances() const { return arrayFor("allowances"); }
void GWLimitItem::setAllowances(plist::ArrayRef allowances) {
  setArrayFor("allowances", std::move(allowances));
}

GWCurfewsRef GWLimitItem::curfews() const {
  return _dictionary->get("curfews").ifObject<GWCurfews>();
}
void GWLimitItem::setCurfews(GWCurfewsRef curfews) {
  if (curfews) {
    _dictionary->set("curfews", std::move(curfews));
  } else {
    _dictionary->remove("curfews");
  }
}

bool GWLimitItem::allowancesActive() const {
  return _dictionary->get("allowancesActive").boolValue();
}
void GWLimitItem::setAllowancesActive(bool active) { _dictionary->set("allowancesActive", active); }
std::int32_t GWLimitItem::timeLastUpdated() const {
  return std::int32_t(_dictionary->get("timeLastUpdated").intValue());
}
void GWLimitItem::setTimeLastUpdated(std::int32_t value) {
  _dictionary->set("timeLastUpdated", value);
}

GWAllowanceRef GWLimitItem::weekdayAllowance() const {
  return allowances::weekdayAllowance(allowances());
}
GWAllowanceRef GWLimitItem::weekendAllowance() const {
  return allowances::weekendAllowance(allowances());
}
void GWLimitItem::setWeekdayAllowanceSeconds(std::int32_t seconds) {
  plist::ArrayRef list = allowances();
  allowances::setWeekdayAllowanceSeconds(list, seconds);
  setAllowances(list);
}
void GWLimitItem::setWeekendAllowanceSeconds(std::int32_t seconds) {
  plist::ArrayRef list = allowances();
  allowances::setWeekendAllowanceSeconds(list, seconds);
  setAllowances(list);
}
void GWLimitItem::removeWeekdayAllowance() { allowances::removeWeekdayAllowance(allowances()); }
void GWLimitItem::removeWeekendAllowance() { allowances::removeWeekendAllowance(allowances()); }

std::optional<std::string> GWLimitItem::stringFor(std::string_view key) const {
  const std::string* text = _dictionary->get(key).ifString();
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

void GWLimitItem::setStringFor(std::string_view key, std::optional<std::string> value) {
  if (value) {
    _dictionary->set(std::string(key), std::move(*value));
  } else {
    _dictionary->remove(key);
  }
}

plist::ArrayRef GWLimitItem::arrayFor(std::string_view key) const {
  const plist::Value& value = _dictionary->get(key);
  return value.isArray() ? value.array() : nullptr;
}

void GWLimitItem::setArrayFor(std::string_view key, plist::ArrayRef value) {
  if (value) {
    _dictionary->set(std::string(key), std::move(value));
  } else {
    _dictionary->remove(key);
  }
}

}  // namespace gw
