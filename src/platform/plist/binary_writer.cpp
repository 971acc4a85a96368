#include "platform/plist/codec.h"

namespace gw::plist {

void writeBinaryPropertyList(const Value&, std::string&) {}

}  // namespace gw::plist
