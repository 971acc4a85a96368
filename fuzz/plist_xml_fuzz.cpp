// Reads arbitrary bytes as an XML property list; whatever reads must write back and read again
// to an equal value.
#include <gatewise/plist.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "plist_round_trip.h"

using gwfuzz::sameValue;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Binary documents belong to the binary target.
  if (size >= 8 && std::memcmp(data, "bplist00", 8) == 0) return 0;
  gw::plist::ReadOptions options;
  options.xmlUIDDictionaries = (size & 1) != 0;  // vary the option without spending input bytes
  gw::plist::ReadResult first = gw::plist::readPropertyList(std::span(data, size), options);
  if (!first) return 0;
  std::optional<std::string> written =
      gw::plist::writePropertyList(*first.value, gw::plist::Format::XML);
  if (!written) std::abort();
  gw::plist::ReadResult second = gw::plist::readPropertyList(*written, options);
  if (!second || !sameValue(*first.value, *second.value)) std::abort();
  return 0;
}
