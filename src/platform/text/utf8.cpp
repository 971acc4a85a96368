#include "platform/text/utf8.h"

#include <cstdint>

namespace gw::text {

bool isValidUTF8(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size()) {
    auto c = std::uint8_t(s[i]);
    std::size_t extra = c < 0x80         ? 0
                        : (c >> 5) == 6  ? 1
                        : (c >> 4) == 14 ? 2
                        : (c >> 3) == 30 ? 3
                                         : 9;
    if (extra == 9 || s.size() - i <= extra) return false;
    for (std::size_t k = 1; k <= extra; ++k) {
      if ((std::uint8_t(s[i + k]) & 0xC0) != 0x80) return false;
    }
    i += extra + 1;
  }
  return true;
}

void appendUTF8(std::string& out, std::uint32_t c) {
  if (c < 0x80) {
    out += char(c);
  } else if (c < 0x800) {
    out += char(0xC0 | (c >> 6));
    out += char(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += char(0xE0 | (c >> 12));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  } else {
    out += char(0xF0 | (c >> 18));
    out += char(0x80 | ((c >> 12) & 0x3F));
    out += char(0x80 | ((c >> 6) & 0x3F));
    out += char(0x80 | (c & 0x3F));
  }
}

}  // namespace gw::text
