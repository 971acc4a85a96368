#include "platform/plist/codec.h"

namespace gw::plist {

ReadResult readXMLPropertyList(std::span<const std::uint8_t>, const ReadOptions&) {
  ReadResult r;
  r.error = "not implemented yet";
  return r;
}

}  // namespace gw::plist
