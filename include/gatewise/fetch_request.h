// Recorded events and the fetch requests that select them.
//
// The daemon records what happens to managed users (logins, counted sessions, refused launches and
// pages, overrides granted) as GWEvent objects: an entity name, the user's uid, the moment and a
// few named scalar fields. Settings editors select them with a GWFetchRequest: an entity name
// ("Event" selects every entity), a predicate written in the small language below, a sort key and
// a limit. Both classes archive themselves with the keyed archiver (gatewise/archive.h) under the
// class names "GWFetchRequest" and "GWEvent" (superclass "NSObject"); their coders are registered
// when the library is loaded. A request travels to the daemon as the archive of one GWFetchRequest,
// the answer comes back as the archive of an array of GWEvent objects (gatewise/events.h).
//
// Predicates compare an event's fields with literals:
//   time >= 2026-11-23T08:00 AND entity == "BlockedLaunch" AND NOT (path BEGINSWITH "/usr")
// Fields: "entity" (string), "time" (date; a number means seconds since 1970), "uid" (number),
// and the fields of the entities (kGWEventEntities). Operators ==, !=, <, <=, >, >=, CONTAINS,
// BEGINSWITH (strings only); AND, OR, NOT and parentheses; keywords in any case. Literals: strings
// in double or single quotes (backslash escapes \" \' \\ \n \t), numbers, TRUE/FALSE, and dates
// as YYYY-MM-DD[THH:MM[:SS]] with an optional "Z" or "+HH:MM"/"-HH:MM" (local time without one).
// A comparison of a field an event does not carry is false. An empty predicate selects every event.
// Texts longer than kGWMaxPredicateLength, nested deeper than kGWMaxPredicateDepth or with more
// than kGWMaxPredicateTerms comparisons are refused.
//
// Objects are not synchronised: use one from one thread at a time.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace gw {

// The entity name that selects events of every entity.
inline constexpr std::string_view kGWEventAnyEntity = "Event";
// Most events one request may ask for (and the daemon ever answers with).
inline constexpr std::size_t kGWMaxFetchLimit = 10000;
inline constexpr std::size_t kGWMaxPredicateLength = 4096;
inline constexpr std::size_t kGWMaxPredicateDepth = 32;
inline constexpr std::size_t kGWMaxPredicateTerms = 64;

// What a field holds: a string, a number, either (a reason is a code for some entities and a word
// for others), or a date.
enum class GWEventFieldKind { String, Number, StringOrNumber, Date };

struct GWEventFieldInfo {
  std::string_view name;
  GWEventFieldKind kind;
};

struct GWEventEntityInfo {
  std::string_view name;
  std::span<const GWEventFieldInfo> fields;
};

// Every entity the daemon records, with its fields.
GW_EXPORT std::span<const GWEventEntityInfo> GWEventEntities();
GW_EXPORT bool GWIsKnownEventEntity(std::string_view name);
// The kind of a field a predicate may name ("entity", "time", "uid" or an entity's field), or
// nullopt for an unknown name.
GW_EXPORT std::optional<GWEventFieldKind> GWEventFieldKindOf(std::string_view name);
// Whether text parses as a predicate; *error says why not.
GW_EXPORT bool GWIsValidEventPredicate(std::string_view text, std::string* error);

class GWFetchRequest;
using GWFetchRequestRef = std::shared_ptr<GWFetchRequest>;

class GW_EXPORT GWFetchRequest : public GWObject {
 public:
  // A request for entityName with no predicate, sorted by time ascending, limit 0 (as many as the
  // daemon answers, at most kGWMaxFetchLimit).
  static GWFetchRequestRef fetchRequestWithEntityName(std::string entityName);

  const std::string& entityName() const { return _entityName; }
  void setEntityName(std::string name) { _entityName = std::move(name); }
  const std::string& predicate() const { return _predicate; }
  void setPredicate(std::string predicate) { _predicate = std::move(predicate); }
  // "time" (default), "entity" or "uid".
  const std::string& sortKey() const { return _sortKey; }
  void setSortKey(std::string key) { _sortKey = std::move(key); }
  bool ascending() const { return _ascending; }
  void setAscending(bool ascending) { _ascending = ascending; }
  std::uint64_t fetchLimit() const { return _fetchLimit; }
  void setFetchLimit(std::uint64_t limit) { _fetchLimit = limit; }

  std::string description() const override;

 private:
  std::string _entityName;
  std::string _predicate;
  std::string _sortKey = "time";
  bool _ascending = true;
  std::uint64_t _fetchLimit = 0;
};

class GWEvent;
using GWEventRef = std::shared_ptr<GWEvent>;

class GW_EXPORT GWEvent : public GWObject {
 public:
  static GWEventRef eventWithEntity(std::string entity, uid_t uid, plist::Date time,
                                    std::map<std::string, plist::Value> fields);

  const std::string& entity() const { return _entity; }
  uid_t uid() const { return _uid; }
  plist::Date time() const { return _time; }
  const std::map<std::string, plist::Value>& fields() const { return _fields; }
  // The field's value, or a null Value.
  plist::Value field(std::string_view name) const;

  // "<entity> key=value key=value" (fields in name order).
  std::string description() const override;

 private:
  std::string _entity;
  uid_t _uid = 0;
  plist::Date _time;
  std::map<std::string, plist::Value> _fields;
};

}  // namespace gw
