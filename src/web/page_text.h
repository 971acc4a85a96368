// Page texts that come from untrusted bytes (addresses, titles, page dumps), made into strings
// that are valid UTF-8 and of bounded size, for the daemon's event records and the filter
// service's dumps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace gw::web {

// bytes as UTF-8 text of at most maxBytes: every byte that does not belong to a well-formed
// sequence (overlong forms, surrogates and values past U+10FFFF included) becomes "?"; a longer
// text is cut where a character starts and ends in "..." (when maxBytes leaves room for it).
std::string boundedText(std::span<const std::uint8_t> bytes, std::size_t maxBytes);

inline std::string boundedText(std::string_view text, std::size_t maxBytes) {
  return boundedText({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, maxBytes);
}

}  // namespace gw::web
