#include "daemon/web/page_events.h"

#include <gatewise/core.h>
#include <gatewise/web.h>

#include "web/page_text.h"

namespace gw::daemon {
namespace {

using web::boundedText;

std::span<const std::uint8_t> bytesOf(const std::string& s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

std::string stringField(const plist::Dictionary& page, std::string_view key, std::size_t max) {
  const std::string* text = page.get(key).ifString();
  return text ? boundedText(bytesOf(*text), max) : std::string();
}

}  // namespace

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
