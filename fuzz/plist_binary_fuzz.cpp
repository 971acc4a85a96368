// Reads arbitrary bytes as a binary property list; whatever reads and can be written must write
// back and read again to an equal value.
#include <gatewise/plist.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "plist_round_trip.h"

using gwfuzz::sameValue;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Every input is tried as binary, whatever its first bytes: the header is the least
  // interesting part to make the fuzzer discover.
  std::string bytes = "bplist00";
  if (size >= 8 && std::memcmp(data, "bplist00", 8) == 0) {
    bytes.assign(reinterpret_cast<const char*>(data), size);
  } else {
    bytes.append(reinterpret_cast<const char*>(data), size);
  }
  gw::plist::ReadOptions options;
  if (size & 1) options.mutability = gw::plist::Mutability::MutableContainers;
  gw::plist::ReadResult first = gw::plist::readPropertyList(bytes, options);
  if (!first) {
    if (first.error.empty()) std::abort();
    return 0;
  }
  // Nulls and fill bytes read as null, which a property list cannot hold.
  if (!gw::plist::isValidPropertyList(*first.value, gw::plist::Format::Binary)) return 0;
  std::optional<std::string> written =
      gw::plist::writePropertyList(*first.value, gw::plist::Format::Binary);
  if (!written) std::abort();
  gw::plist::ReadResult second = gw::plist::readPropertyList(*written, options);
  // Uniquing can make the copy much smaller than the original, and the expansion budget is
  // proportional to the file size: only that refusal is acceptable here.
  if (!second) {
    if (second.error.find("too many values") != std::string::npos) return 0;
    std::abort();
  }
  if (!sameValue(*first.value, *second.value)) std::abort();
  return 0;
}
