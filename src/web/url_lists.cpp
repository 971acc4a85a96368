// OnList: the matching rule of the content filter's allow and deny lists.
//
// An entry matches a URL that begins with it, letter case ignored (Unicode case folding, so
// "HTTP://BÜCHER.example" and "http://bücher.example" are the same beginning). The URL is not
// parsed, decoded or normalised: entries must be written in the form URLs arrive in.
#include <unicode/unistr.h>

#include <string>

#include "web/content_filter.h"

namespace {

// The printed forms in the trace are bounded: a list of thousands of entries is summarised.
constexpr std::size_t kMaxTraceBytes = 64 * 1024;

std::string printed(const gw::plist::Value& value) {
  std::optional<std::string> text = gw::plist::description(value, kMaxTraceBytes);
  return text ? *text : std::string("(too long to print)");
}

icu::UnicodeString folded(const std::string& text) {
  icu::UnicodeString s = icu::UnicodeString::fromUTF8(text);
  s.foldCase();
  return s;
}

}  // namespace

bool OnList(const gw::plist::Value& url, const gw::plist::Value& list) {
  gw::web::writeFilterMessage("OnList for incoming: " + printed(url) +
                              "\nAgainst list: " + printed(list) + "\n");
  const std::string* urlText = url.ifString();
  const gw::plist::Array* entries = list.ifArray();
  if (!urlText || !entries) return false;
  icu::UnicodeString foldedURL = folded(*urlText);
  for (const gw::plist::Value& entry : *entries) {
    const std::string* prefix = entry.ifString();
    // An empty entry is never found in a URL, so it matches nothing.
    if (!prefix || prefix->empty()) continue;
    icu::UnicodeString foldedPrefix = folded(*prefix);
    if (!foldedPrefix.isEmpty() && foldedURL.startsWith(foldedPrefix)) return true;
  }
  return false;
}
