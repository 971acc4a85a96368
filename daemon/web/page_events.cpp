#include "daemon/web/page_events.h"

#include <gatewise/core.h>
#include <gatewise/web.h>

namespace gw::daemon {
namespace {

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

std::span<const std::uint8_t> bytesOf(const std::string& s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

std::string stringField(const plist::Dictionary& page, std::string_view key, std::size_t max) {
  const std::string* text = page.get(key).ifString();
  return text ? boundedText(bytesOf(*text), max) : std::string();
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

Event visitedPageEvent(uid_t uid, std::span<const std::uint8_t> url,
                       std::span<const std::uint8_t> title) {
  Event event{std::string(kEventVisitedPage), uid, 0, {}};
  event.fields["url"] = boundedText(url, kMaxRecordedURLBytes);
  event.fields["title"] = boundedText(title, kMaxRecordedTitleBytes);
  return event;
}

std::optional<Event> pageReportEvent(std::string_view entity, uid_t peer,
                                     std::span<const std::uint8_t> payload, std::string* why) {
  if (payload.size() > kMaxPageReportBytes) {
    *why = "page description too large";
    return std::nullopt;
  }
  plist::ReadResult read = plist::readPropertyList(payload);
  const plist::Dictionary* page = read ? read.value->ifDictionary() : nullptr;
  if (!page) {
    *why = read ? "page description is not a dictionary" : "page description unreadable";
    return std::nullopt;
  }
  std::string url = stringField(*page, kWFURLKey, kMaxRecordedURLBytes);
  if (url.empty()) {
    *why = "page description names no URL";
    return std::nullopt;
  }
  uid_t uid = peer;
  if (const std::string* name = page->get(kWFUsernameKey).ifString()) {
    std::uint32_t named = UIDForShortName(*name);
    if (peer == 0 && named != 0xFFFFFFFFu) {
      uid = named;
    } else if (named != peer) {
      *why = "page description names another user";
      return std::nullopt;
    }
  }
  Event event{std::string(entity), uid, 0, {}};
  event.fields["url"] = url;
  if (entity != kEventWebOverride) {
    event.fields["title"] = stringField(*page, kWFPageTitleKey, kMaxRecordedTitleBytes);
  }
  if (entity == kEventBlockedPage) {
    std::string reason = stringField(*page, kWFFilterDescriptionKey, kMaxRecordedReasonBytes);
    event.fields["reason"] = reason.empty() ? std::string("content filter") : reason;
  }
  return event;
}

}  // namespace gw::daemon
