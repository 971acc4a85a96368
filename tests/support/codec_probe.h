// Whether the property-list codecs are in this build yet. Until they are, readPropertyList answers
// "not implemented yet", and tests that must read or write real files skip with that reason.
#pragma once

#include <gatewise/plist.h>

#include <string>

namespace gwtest {

inline bool codecMissing(gw::plist::Format format) {
  // The value true in each encoding.
  static const unsigned char kBinaryTrue[] = {
      0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0x09, 0x08, 0x00, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x09};
  std::string_view probe =
      format == gw::plist::Format::XML
          ? std::string_view("<plist version=\"1.0\"><true/></plist>")
          : std::string_view(reinterpret_cast<const char*>(kBinaryTrue), sizeof kBinaryTrue);
  gw::plist::ReadResult result = gw::plist::readPropertyList(probe);
  return !result && result.error.find("not implemented yet") != std::string::npos;
}

}  // namespace gwtest

#define GWTEST_SKIP_WITHOUT_CODEC(format)                                                    \
  if (::gwtest::codecMissing(format))                                                        \
  GTEST_SKIP() << "readPropertyList reports \"not implemented yet\" for this encoding: the " \
                  "property-list codec is not in this build"
