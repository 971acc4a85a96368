// UTF-8 validity, as every text that becomes a string value must have it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace gw::text {

// Well-formed UTF-8: no stray continuation bytes, no truncated sequences.
bool isValidUTF8(std::string_view s);

// Appends code point c (at most 0x10FFFF; callers check surrogates and range) encoded as UTF-8.
void appendUTF8(std::string& out, std::uint32_t c);

}  // namespace gw::text
