#include "platform/plist/codec.h"

namespace gw::plist {

void writeXMLPropertyList(const Value&, std::string&) {}

}  // namespace gw::plist
