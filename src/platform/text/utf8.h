// UTF-8 validity, as every text that becomes a string value must have it.
#pragma once

#include <string_view>

namespace gw::text {

// Well-formed UTF-8: no stray continuation bytes, no truncated sequences.
bool isValidUTF8(std::string_view s);

}  // namespace gw::text
