// The entities the daemon records and their fields, described once for the predicate parser, the
// daemon's store and the CLI.
#include <gatewise/fetch_request.h>

#include <algorithm>

namespace gw {
namespace {

using enum GWEventFieldKind;

constexpr GWEventFieldInfo kSession[] = {{"session", String}};
constexpr GWEventFieldInfo kSeconds[] = {{"seconds", Number}};
constexpr GWEventFieldInfo kRefusedLogin[] = {{"reason", StringOrNumber}, {"seconds", Number}};
constexpr GWEventFieldInfo kTimeEnded[] = {{"reason", StringOrNumber}, {"action", String}};
constexpr GWEventFieldInfo kOverride[] = {{"limit", String}, {"seconds", Number}, {"by", String}};
constexpr GWEventFieldInfo kBlockedLaunch[] = {
    {"path", String}, {"bundleID", String}, {"reason", StringOrNumber}};
constexpr GWEventFieldInfo kVisitedPage[] = {{"url", String}, {"title", String}};
constexpr GWEventFieldInfo kBlockedPage[] = {
    {"url", String}, {"title", String}, {"reason", StringOrNumber}};
constexpr GWEventFieldInfo kWebOverride[] = {{"url", String}};

constexpr GWEventEntityInfo kEntities[] = {
    {"Login", kSession},
    {"Logout", kSession},
    {"CountedSession", kSeconds},
    {"RefusedLogin", kRefusedLogin},
    {"TimeEnded", kTimeEnded},
    {"Override", kOverride},
    {"BlockedLaunch", kBlockedLaunch},
    {"VisitedPage", kVisitedPage},
    {"BlockedPage", kBlockedPage},
    {"WebOverride", kWebOverride},
};

}  // namespace

std::span<const GWEventEntityInfo> GWEventEntities() { return kEntities; }

bool GWIsKnownEventEntity(std::string_view name) {
  return std::any_of(std::begin(kEntities), std::end(kEntities),
                     [&](const GWEventEntityInfo& e) { return e.name == name; });
}

std::optional<GWEventFieldKind> GWEventFieldKindOf(std::string_view name) {
  if (name == "entity") return String;
  if (name == "time") return Date;
  if (name == "uid") return Number;
  for (const GWEventEntityInfo& entity : kEntities) {
    for (const GWEventFieldInfo& field : entity.fields) {
      if (field.name == name) return field.kind;
    }
  }
  return std::nullopt;
}

}  // namespace gw
