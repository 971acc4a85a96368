#include "web/page_text.h"

namespace gw::web {
namespace {

// The length of the well-formed sequence at bytes[at], or 0.
std::size_t sequenceLength(std::span<const std::uint8_t> bytes, std::size_t at) {
  std::uint8_t c = bytes[at];
  std::size_t length = c < 0x80           ? 1
                       : (c >> 5) == 0x6  ? 2
                       : (c >> 4) == 0xE  ? 3
                       : (c >> 3) == 0x1E ? 4
                                          : 0;
  if (length == 0 || bytes.size() - at < length) return 0;
  if (length == 1) return 1;
  std::uint32_t cp = c & (0x7F >> length);
  for (std::size_t k = 1; k < length; ++k) {
    if ((bytes[at + k] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (bytes[at + k] & 0x3F);
  }
  static constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  bool valid = cp >= kSmallest[length] && cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF);
  return valid ? length : 0;
}

}  // namespace

std::string boundedText(std::span<const std::uint8_t> bytes, std::size_t maxBytes) {
  constexpr std::string_view kEllipsis = "...";
  std::string text;
  bool cut = false;
  for (std::size_t at = 0; at < bytes.size();) {
    std::size_t length = sequenceLength(bytes, at);
    if (text.size() + (length ? length : 1) > maxBytes) {
      cut = true;
      break;
    }
    if (length) {
      text.append(reinterpret_cast<const char*>(bytes.data() + at), length);
    } else {
      text.push_back('?');
    }
    at += length ? length : 1;
  }
  if (!cut) return text;
  // Make room for the ellipsis by whole characters.
  std::size_t keep = maxBytes >= kEllipsis.size() ? maxBytes - kEllipsis.size() : maxBytes;
  while (text.size() > keep) {
    while (!text.empty() && (std::uint8_t(text.back()) & 0xC0) == 0x80) text.pop_back();
    if (!text.empty()) text.pop_back();
  }
  if (maxBytes >= kEllipsis.size()) text += kEllipsis;
  return text;
}

}  // namespace gw::web
