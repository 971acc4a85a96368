// Temporary minimal stand-in for the limit item (see gatewise/schedule/limit_item.h).
#include <gatewise/schedule/limit_item.h>

namespace gw {

GWLimitItemRef GWLimitItem::initWithDictionary(const plist::Value& stored) {
  if (!stored.isDictionary()) return nullptr;
  return std::make_shared<GWLimitItem>(plist::mutableCopy(stored).dictionary());
}

std::string GWLimitItem::description() const {
  return plist::description(plist::Value(_dictionary));
}

}  // namespace gw
