#include <gatewise/plist.h>

namespace gw::plist {

std::string description(const Value& v) {
  if (v.isString()) return v.string();
  return "<value>";
}

}  // namespace gw::plist
