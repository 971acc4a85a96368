// What the daemon records of the pages a managed user visited or was kept from: the events
// VisitedPage(url, title), BlockedPage(url, title, reason) and WebOverride(url), made from the
// web routines' payloads.
//
// Payloads come from any local process, so everything here is bounded: a description is read only
// up to kMaxPageReportBytes, and every recorded text is cut to its field's size at a character
// boundary, with bytes that are not UTF-8 replaced by "?". The user an event is about is the
// caller, except that root (the content filter running as a service) may name the user with
// "WFUsernameKey" in the description. Pure functions; any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "daemon/events/event.h"

namespace gw::daemon {

inline constexpr std::size_t kMaxPageReportBytes = 256 * 1024;
inline constexpr std::size_t kMaxRecordedURLBytes = 2048;
inline constexpr std::size_t kMaxRecordedTitleBytes = 512;
inline constexpr std::size_t kMaxRecordedReasonBytes = 512;

// _GWMIGLumewayVisitedPage: the page address and the title, about uid.
Event visitedPageEvent(uid_t uid, std::span<const std::uint8_t> url,
                       std::span<const std::uint8_t> title);

// The event for a page-description dictionary sent as an XML (or binary) property list by peer
// (entity kEventBlockedPage, kEventVisitedPage or kEventWebOverride); nullopt, with *why set, when
// the payload is too large, is not a dictionary or names no URL, or names a user a non-root peer
// may not speak for.
std::optional<Event> pageReportEvent(std::string_view entity, uid_t peer,
                                     std::span<const std::uint8_t> payload, std::string* why);

}  // namespace gw::daemon
