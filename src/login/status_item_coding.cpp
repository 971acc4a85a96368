#include "login/status_item_coding.h"

#include <gatewise/archive.h>
#include <gatewise/log.h>
#include <gatewise/status.h>

namespace gw {
namespace {

void encodeStatusItem(const GWObject& object, archive::Encoder& coder) {
  const auto& item = static_cast<const GWStatusItem&>(object);
  auto optional = [](const auto& v) { return v ? plist::Value(*v) : plist::Value(); };
  coder.encodeObject("itemKind", plist::Value(item.itemKind()));
  coder.encodeObject("statusKind", optional(item.statusKind()));
  coder.encodeObject("itemCreationDate", optional(item.itemCreationDate()));
  coder.encodeObject("expirationDate", plist::Value(item.expirationDate()));
  coder.encodeObject("itemName", plist::Value(item.itemName()));
  coder.encodeObject("pid", plist::Value(item.pid()));
  coder.encodeObject("itemID", optional(item.itemID()));
  if (GWLimitItemRef limit = item.limit()) {
    if (plist::DictionaryRef stored = limit->plistRepresentation())
      coder.encodeObject("limit", plist::Value(stored));
  }
}

// A field that must be a string when present; false when it has another type.
bool readString(archive::Decoder& coder, std::string_view key, std::optional<std::string>* out) {
  plist::Value v = coder.decodeObject(key);
  if (v.isNull()) return true;
  if (!v.isString()) return false;
  *out = v.string();
  return true;
}

bool readDate(archive::Decoder& coder, std::string_view key, std::optional<plist::Date>* out) {
  plist::Value v = coder.decodeObject(key);
  if (v.isNull()) return true;
  if (!v.isDate()) return false;
  *out = v.date();
  return true;
}

GWObjectRef decodeStatusItem(archive::Decoder& coder) {
  std::optional<std::string> itemKind, statusKind, itemName, itemID;
  std::optional<plist::Date> creation, expiration;
  if (!readString(coder, "itemKind", &itemKind) || !readString(coder, "statusKind", &statusKind) ||
      !readDate(coder, "itemCreationDate", &creation) ||
      !readDate(coder, "expirationDate", &expiration) ||
      !readString(coder, "itemName", &itemName) || !readString(coder, "itemID", &itemID)) {
    GW_LOG(0, "*** GWStatusItem: a field has the wrong type");
    return nullptr;
  }
  plist::Value pid = coder.decodeObject("pid");
  if (!pid.isNull() && !pid.isNumber()) {
    GW_LOG(0, "*** GWStatusItem: pid is not a number");
    return nullptr;
  }
  auto item = GWStatusItem::initWithName(itemName.value_or(""), itemKind.value_or(""),
                                         expiration.value_or(plist::Date{}));
  item->setStatusKind(statusKind);
  item->setItemCreationDate(creation);
  item->setItemID(itemID);
  item->setPid(std::int32_t(pid.intValue()));
  plist::Value limit = coder.decodeObject("limit");
  if (limit.isDictionary()) {
    try {
      item->setLimit(GWLimitItem::limitItemWithDictionary(limit));
    } catch (const std::exception& e) {
      GW_LOG_CAUGHT(e);
    }
  } else if (!limit.isNull()) {
    GW_LOG(0, "*** GWStatusItem: limit is not a dictionary");
    return nullptr;
  }
  return item;
}

}  // namespace

void registerStatusItemCoder() {
  archive::registerCoder<GWStatusItem>(
      {"GWStatusItem", {"GWStatusItem", "NSObject"}, encodeStatusItem, decodeStatusItem});
}

}  // namespace gw
