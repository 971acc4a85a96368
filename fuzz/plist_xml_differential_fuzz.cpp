// Reads arbitrary bytes with the library's XML property-list reader and with the expat-based
// reference reader beside it: both must accept the same documents and read the same values.
//
// Known, accepted differences are left out rather than reported: documents in UTF-16 or
// ISO-8859-1 (expat reads them, the library refuses UTF-16), internal DTD subsets (the library
// skips declarations without checking their grammar as expat does), and characters beyond ASCII
// inside markup (the library allows only ASCII names).
#include <gatewise/plist.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "plist_round_trip.h"
#include "plist_xml_expat_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size >= 8 && std::memcmp(data, "bplist00", 8) == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (text.find("<!DOCTYPE") != std::string_view::npos &&
      text.find('[') != std::string_view::npos) {
    return 0;
  }
  if (text.find("encoding") != std::string_view::npos ||
      text.find('\0') != std::string_view::npos) {
    return 0;
  }
  if (size >= 2 && ((data[0] == 0xFE && data[1] == 0xFF) || (data[0] == 0xFF && data[1] == 0xFE))) {
    return 0;
  }
  bool inMarkup = false;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == '<') inMarkup = true;
    if (data[i] == '>') inMarkup = false;
    if (inMarkup && data[i] >= 0x80) return 0;
  }
  gw::plist::ReadOptions options;
  options.xmlUIDDictionaries = (size & 1) != 0;
  options.maxDepth = 64;
  gw::plist::ReadResult ours = gw::plist::readPropertyList(std::span(data, size), options);
  gw::plist::ReadResult reference =
      gwfuzz::expat::readXMLPropertyList(std::span(data, size), options);
  if (bool(ours) != bool(reference)) {
    std::fprintf(stderr, "ours: %s\nexpat: %s\n", ours ? "accepted" : ours.error.c_str(),
                 reference ? "accepted" : reference.error.c_str());
    std::abort();
  }
  if (ours && !gwfuzz::sameValue(*ours.value, *reference.value)) std::abort();
  return 0;
}
