// Writing keyed archives: walks the value graph once, giving each container and object a slot in
// "$objects" before its children so that shared values are written once and a value that contains
// itself is caught instead of followed for ever.
#include <gatewise/archive.h>
#include <gatewise/log.h>

#include <map>
#include <set>
#include <string>

#include "platform/archive/archive_layout.h"
#include "platform/archive/coder_registry.h"

namespace gw::archive {
namespace {

using plist::Value;

// Why a graph cannot be archived; caught at the entry point.
struct ArchiveFailure {
  std::string reason;
};

class KeyedArchiver {
 public:
  KeyedArchiver() { objects_.push_back(Value(layout::kNull)); }

  Value archive(const Value& root) {
    Value rootUID = reference(root);
    auto top = plist::Dictionary::make();
    top->set(std::string(layout::kArchiverKey), Value(layout::kArchiverName));
    top->set(std::string(layout::kVersionKey), Value(layout::kVersion));
    top->set(std::string(layout::kObjectsKey), Value(plist::Array::make(std::move(objects_))));
    top->set(std::string(layout::kTopKey),
             Value(plist::Dictionary::make({{std::string(layout::kRootKey), rootUID}})));
    return Value(top);
  }

  // The UID under which v is stored, writing it first when it is new.
  Value reference(const Value& v);

 private:
  class ObjectEncoder;

  std::uint64_t reserveSlot() {
    objects_.push_back(Value());
    return objects_.size() - 1;
  }
  std::uint64_t append(Value v) {
    objects_.push_back(std::move(v));
    return objects_.size() - 1;
  }
  Value classReference(const std::vector<std::string>& classes);
  Value builtinClass(std::string_view name, std::initializer_list<std::string_view> supers);
  Value encodeContainer(const void* identity, const std::function<Value()>& fields);
  Value encodeObject(const GWObjectRef& object);

  std::vector<Value> objects_;
  std::map<std::string, std::uint64_t, std::less<>> strings_;
  std::map<std::string, std::uint64_t, std::less<>> classes_;
  std::map<const void*, std::uint64_t> written_;
  std::set<const void*> inProgress_;
  unsigned depth_ = 0;
};

class KeyedArchiver::ObjectEncoder final : public Encoder {
 public:
  ObjectEncoder(KeyedArchiver& archiver, plist::Dictionary& fields)
      : archiver_(archiver), fields_(fields) {}
  void encodeObject(std::string_view key, const Value& value) override {
    fields_.set(layout::storedKey(key), archiver_.reference(value));
  }
  void encodeInt(std::string_view key, std::int64_t value) override {
    fields_.set(layout::storedKey(key), Value(value));
  }
  void encodeDouble(std::string_view key, double value) override {
    fields_.set(layout::storedKey(key), Value(value));
  }
  void encodeBool(std::string_view key, bool value) override {
    fields_.set(layout::storedKey(key), Value(value));
  }

 private:
  KeyedArchiver& archiver_;
  plist::Dictionary& fields_;
};

Value KeyedArchiver::classReference(const std::vector<std::string>& classes) {
  const std::string& name = classes.front();
  if (auto found = classes_.find(name); found != classes_.end())
    return Value(plist::UID{found->second});
  auto chain = plist::Array::make();
  for (const std::string& c : classes) chain->append(Value(c));
  std::uint64_t uid =
      append(Value(plist::Dictionary::make({{std::string(layout::kClassNameKey), Value(name)},
                                            {std::string(layout::kClassesKey), Value(chain)}})));
  classes_.emplace(name, uid);
  return Value(plist::UID{uid});
}

Value KeyedArchiver::builtinClass(std::string_view name,
                                  std::initializer_list<std::string_view> supers) {
  std::vector<std::string> classes{std::string(name)};
  for (std::string_view s : supers) classes.emplace_back(s);
  classes.emplace_back(layout::kRootClass);
  return classReference(classes);
}

// Containers and objects: one slot per identity, reserved before the children are written.
Value KeyedArchiver::encodeContainer(const void* identity, const std::function<Value()>& fields) {
  if (auto done = written_.find(identity); done != written_.end())
    return Value(plist::UID{done->second});
  if (!inProgress_.insert(identity).second) throw ArchiveFailure{"a value contains itself"};
  if (++depth_ > kMaxArchiveDepth) throw ArchiveFailure{"nesting too deep"};
  std::uint64_t slot = reserveSlot();
  objects_[slot] = fields();
  --depth_;
  inProgress_.erase(identity);
  written_.emplace(identity, slot);
  return Value(plist::UID{slot});
}

Value KeyedArchiver::encodeObject(const GWObjectRef& object) {
  const GWObject& target = *object;
  auto coder = coderForType(std::type_index(typeid(target)));
  if (!coder) throw ArchiveFailure{"no coder for " + object->description()};
  return encodeContainer(object.get(), [&] {
    auto fields = plist::Dictionary::make();
    ObjectEncoder encoder(*this, *fields);
    coder->encode(*object, encoder);
    fields->set(std::string(layout::kClassKey), classReference(coder->classes));
    return Value(fields);
  });
}

Value KeyedArchiver::reference(const Value& v) {
  switch (v.type()) {
    case plist::Type::Null:
      return Value(plist::UID{0});
    case plist::Type::String: {
      if (auto found = strings_.find(v.string()); found != strings_.end())
        return Value(plist::UID{found->second});
      std::uint64_t uid = append(v);
      strings_.emplace(v.string(), uid);
      return Value(plist::UID{uid});
    }
    case plist::Type::Boolean:
    case plist::Type::Integer:
    case plist::Type::Real:
    case plist::Type::Data:
      return Value(plist::UID{append(v)});
    case plist::Type::Date:
      return Value(plist::UID{append(Value(plist::Dictionary::make(
          {{std::string(layout::kTimeField), Value(v.date().secondsSinceReferenceDate)},
           {std::string(layout::kClassKey), builtinClass(layout::kDateClass, {})}})))});
    case plist::Type::Array: {
      const plist::ArrayRef& array = v.array();
      return encodeContainer(array.get(), [&] {
        auto uids = plist::Array::make();
        for (const Value& item : *array) uids->append(reference(item));
        return Value(plist::Dictionary::make(
            {{std::string(layout::kObjectsField), Value(uids)},
             {std::string(layout::kClassKey),
              array->isMutable() ? builtinClass(layout::kMutableArrayClass, {layout::kArrayClass})
                                 : builtinClass(layout::kArrayClass, {})}}));
      });
    }
    case plist::Type::Dictionary: {
      const plist::DictionaryRef& dictionary = v.dictionary();
      return encodeContainer(dictionary.get(), [&] {
        auto keys = plist::Array::make();
        auto values = plist::Array::make();
        for (const auto& [key, item] : *dictionary) {
          keys->append(reference(Value(key)));
          values->append(reference(item));
        }
        return Value(plist::Dictionary::make(
            {{std::string(layout::kKeysField), Value(keys)},
             {std::string(layout::kObjectsField), Value(values)},
             {std::string(layout::kClassKey),
              dictionary->isMutable()
                  ? builtinClass(layout::kMutableDictionaryClass, {layout::kDictionaryClass})
                  : builtinClass(layout::kDictionaryClass, {})}}));
      });
    }
    case plist::Type::Object:
      if (!v.object()) return Value(plist::UID{0});
      return encodeObject(v.object());
    case plist::Type::UID:
      break;
  }
  throw ArchiveFailure{"a UID cannot be archived"};
}

// XML has no UID type: other readers and writers spell one {"CF$UID": n}. Only the archive's own
// structure holds UIDs (top, object dictionaries, their key and value arrays), so this walk stays
// shallow; plain values inside $objects are copied by reference.
Value spellUIDsForXML(const Value& v) {
  if (v.isUID())
    return Value(plist::Dictionary::make(
        {{std::string(layout::kXMLUIDKey), Value(std::uint64_t(v.uid().value))}}));
  if (auto* array = v.ifArray()) {
    auto out = plist::Array::make();
    for (const Value& item : *array) out->append(spellUIDsForXML(item));
    return Value(out);
  }
  if (auto* dictionary = v.ifDictionary()) {
    auto out = plist::Dictionary::make();
    for (const auto& [key, item] : *dictionary) out->set(key, spellUIDsForXML(item));
    return Value(out);
  }
  return v;
}

}  // namespace

std::vector<std::uint8_t> archivedDataWithRootObject(const plist::Value& root,
                                                     plist::Format format) {
  try {
    Value archive = KeyedArchiver().archive(root);
    if (format == plist::Format::XML) archive = spellUIDsForXML(archive);
    std::string error;
    std::optional<std::string> bytes = plist::writePropertyList(archive, format, &error);
    if (!bytes) {
      GW_LOG(0, "*** Could not archive: %s", error);
      return {};
    }
    return std::vector<std::uint8_t>(bytes->begin(), bytes->end());
  } catch (const ArchiveFailure& failure) {
    GW_LOG(0, "*** Could not archive: %s", failure.reason);
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
  return {};
}

}  // namespace gw::archive
