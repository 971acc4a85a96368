// The two property-list encodings behind readPropertyList/writePropertyList.
//
// Each reader takes the whole document and returns a value or a one-line error; each writer appends
// the encoding of a value already checked with isValidPropertyList. Readers never throw, bound
// every offset, count and depth, and make containers immutable unless the options ask for mutable
// ones.
#pragma once

#include <gatewise/plist.h>

#include <cstdint>
#include <span>
#include <string>

namespace gw::plist {

ReadResult readXMLPropertyList(std::span<const std::uint8_t> bytes, const ReadOptions& options);
ReadResult readBinaryPropertyList(std::span<const std::uint8_t> bytes, const ReadOptions& options);

// False (with *error set) when the text would pass kMaxPropertyListFileSize: containers shared in
// many places are written out at each, and nothing that large could be read back.
bool writeXMLPropertyList(const Value& value, std::string& out, std::string* error);
void writeBinaryPropertyList(const Value& value, std::string& out);

}  // namespace gw::plist
