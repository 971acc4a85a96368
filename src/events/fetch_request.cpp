// GWFetchRequest and GWEvent, and their keyed-archive coders.
//
// GWFetchRequest: "entityName" and "predicate" (strings), "sortKey" (string), "ascending" (inline
// boolean), "fetchLimit" (inline integer). GWEvent: "entity" (string), "uid" (inline integer),
// "time" (date), "fields" (dictionary of scalars). Missing keys read as empty; a key of the wrong
// type fails the archive.
#include <gatewise/archive.h>
#include <gatewise/fetch_request.h>
#include <gatewise/log.h>

namespace gw {
namespace {

bool readString(archive::Decoder& coder, std::string_view key, std::string* out) {
  plist::Value v = coder.decodeObject(key);
  if (v.isNull()) return true;
  if (!v.isString()) return false;
  *out = v.string();
  return true;
}

void encodeFetchRequest(const GWObject& object, archive::Encoder& coder) {
  const auto& request = static_cast<const GWFetchRequest&>(object);
  coder.encodeObject("entityName", plist::Value(request.entityName()));
  coder.encodeObject("predicate", plist::Value(request.predicate()));
  coder.encodeObject("sortKey", plist::Value(request.sortKey()));
  coder.encodeBool("ascending", request.ascending());
  coder.encodeInt("fetchLimit", std::int64_t(request.fetchLimit()));
}

GWObjectRef decodeFetchRequest(archive::Decoder& coder) {
  std::string entity, predicate, sortKey = "time";
  if (!readString(coder, "entityName", &entity) || !readString(coder, "predicate", &predicate) ||
      !readString(coder, "sortKey", &sortKey)) {
    GW_LOG(0, "*** GWFetchRequest: a field has the wrong type");
    return nullptr;
  }
  std::int64_t limit = coder.decodeInt("fetchLimit");
  if (limit < 0) {
    GW_LOG(0, "*** GWFetchRequest: negative fetch limit %lld", static_cast<long long>(limit));
    return nullptr;
  }
  auto request = GWFetchRequest::fetchRequestWithEntityName(std::move(entity));
  request->setPredicate(std::move(predicate));
  request->setSortKey(std::move(sortKey));
  request->setAscending(coder.containsValueForKey("ascending") ? coder.decodeBool("ascending")
                                                               : true);
  request->setFetchLimit(std::uint64_t(limit));
  return request;
}

void encodeEvent(const GWObject& object, archive::Encoder& coder) {
  const auto& event = static_cast<const GWEvent&>(object);
  auto fields = plist::Dictionary::make();
  for (const auto& [name, value] : event.fields()) fields->set(name, value);
  coder.encodeObject("entity", plist::Value(event.entity()));
  coder.encodeInt("uid", std::int64_t(event.uid()));
  coder.encodeObject("time", plist::Value(event.time()));
  coder.encodeObject("fields", plist::Value(fields));
}

GWObjectRef decodeEvent(archive::Decoder& coder) {
  std::string entity;
  plist::Value time = coder.decodeObject("time");
  plist::Value fields = coder.decodeObject("fields");
  if (!readString(coder, "entity", &entity) || !(time.isNull() || time.isDate()) ||
      !(fields.isNull() || fields.isDictionary())) {
    GW_LOG(0, "*** GWEvent: a field has the wrong type");
    return nullptr;
  }
  std::map<std::string, plist::Value> values;
  if (fields.isDictionary()) {
    for (const auto& [name, value] : fields.dictionary()->entries()) {
      if (value.isArray() || value.isDictionary() || value.isObject()) {
        GW_LOG(0, "*** GWEvent: field %s is not a scalar", name.c_str());
        return nullptr;
      }
      values.emplace(name, value);
    }
  }
  return GWEvent::eventWithEntity(std::move(entity), uid_t(coder.decodeInt("uid")),
                                  time.isDate() ? time.date() : plist::Date{}, std::move(values));
}

const bool kCodersRegistered = [] {
  archive::registerCoder<GWFetchRequest>(
      {"GWFetchRequest", {"GWFetchRequest", "NSObject"}, encodeFetchRequest, decodeFetchRequest});
  archive::registerCoder<GWEvent>({"GWEvent", {"GWEvent", "NSObject"}, encodeEvent, decodeEvent});
  return true;
}();

}  // namespace

GWFetchRequestRef GWFetchRequest::fetchRequestWithEntityName(std::string entityName) {
  (void)kCodersRegistered;
  auto request = std::make_shared<GWFetchRequest>();
  request->_entityName = std::move(entityName);
  return request;
}

std::string GWFetchRequest::description() const {
  return "<GWFetchRequest entity=" + _entityName + " predicate=" + _predicate +
         " sortKey=" + _sortKey + (_ascending ? " ascending" : " descending") +
         " limit=" + std::to_string(_fetchLimit) + ">";
}

GWEventRef GWEvent::eventWithEntity(std::string entity, uid_t uid, plist::Date time,
                                    std::map<std::string, plist::Value> fields) {
  (void)kCodersRegistered;
  auto event = std::make_shared<GWEvent>();
  event->_entity = std::move(entity);
  event->_uid = uid;
  event->_time = time;
  event->_fields = std::move(fields);
  return event;
}

plist::Value GWEvent::field(std::string_view name) const {
  auto it = _fields.find(std::string(name));
  return it == _fields.end() ? plist::Value() : it->second;
}

std::string GWEvent::description() const {
  std::string text = _entity;
  for (const auto& [name, value] : _fields) {
    text += ' ' + name + '=';
    text += value.isString() ? value.string() : plist::description(value);
  }
  return text;
}

}  // namespace gw
