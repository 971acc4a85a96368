// Reading keyed archives. Every reference is checked against the object table, each entry is
// decoded at most once (later references share the result), an entry met again while it is being
// decoded is a cycle, and nesting is capped, so hostile archives cost at most one pass over the
// table and a bounded stack.
#include <gatewise/archive.h>
#include <gatewise/log.h>

#include <string>
#include <vector>

#include "platform/archive/archive_layout.h"
#include "platform/archive/coder_registry.h"

namespace gw::archive {
namespace {

using plist::Value;

// Why an archive is refused; caught at the entry point. Not a std::exception, so that a class's
// decode function that catches those does not swallow it.
struct Malformed {
  std::string reason;
};

class KeyedUnarchiver {
 public:
  explicit KeyedUnarchiver(const plist::Array& objects)
      : objects_(objects), state_(objects.size(), State::Fresh), decoded_(objects.size()) {}

  // The value a UID refers to; any other value is refused.
  Value resolve(const Value& ref) {
    if (!ref.isUID()) fail("a reference is not a UID");
    std::uint64_t uid = ref.uid().value;
    if (uid >= objects_.size()) fail("reference " + std::to_string(uid) + " out of range");
    if (uid == 0) return Value();
    switch (state_[uid]) {
      case State::Done:
        return decoded_[uid];
      case State::Decoding:
        fail("reference " + std::to_string(uid) + " refers back to itself");
      case State::Fresh:
        break;
    }
    if (depth_ >= kMaxArchiveDepth) fail("nesting too deep");
    ++depth_;
    state_[uid] = State::Decoding;
    Value value = decodeEntry(objects_[uid]);
    state_[uid] = State::Done;
    decoded_[uid] = value;
    --depth_;
    return value;
  }

  // A value that may sit inline in an object (a scalar) or be referenced.
  Value resolveField(const Value& field) {
    if (field.isUID()) return resolve(field);
    if (field.isArray() || field.isDictionary()) fail("a container stored inline");
    return field;
  }

  [[noreturn]] void fail(std::string reason) {
    failed_ = true;
    throw Malformed{std::move(reason)};
  }
  bool failed() const { return failed_; }

 private:
  enum class State : std::uint8_t { Fresh, Decoding, Done };
  class ObjectDecoder;

  Value decodeEntry(const Value& entry);
  Value decodeObject(const plist::Dictionary& fields);
  Value decodeBuiltin(std::string_view className, const plist::Dictionary& fields, bool* known);
  plist::ArrayRef referencedItems(const plist::Dictionary& fields, std::string_view key);
  std::vector<std::string> classChain(const plist::Dictionary& fields);

  const plist::Array& objects_;
  std::vector<State> state_;
  std::vector<Value> decoded_;
  unsigned depth_ = 0;
  bool failed_ = false;
};

class KeyedUnarchiver::ObjectDecoder final : public Decoder {
 public:
  ObjectDecoder(KeyedUnarchiver& unarchiver, const plist::Dictionary& fields)
      : unarchiver_(unarchiver), fields_(fields) {}
  bool containsValueForKey(std::string_view key) const override {
    return fields_.contains(layout::storedKey(key));
  }
  Value decodeObject(std::string_view key) override {
    const Value* field = fields_.find(layout::storedKey(key));
    return field ? unarchiver_.resolveField(*field) : Value();
  }
  std::int64_t decodeInt(std::string_view key) override {
    Value v = decodeObject(key);
    return v.isNumber() || v.isBoolean() ? v.intValue() : 0;
  }
  double decodeDouble(std::string_view key) override {
    Value v = decodeObject(key);
    return v.isNumber() || v.isBoolean() ? v.doubleValue() : 0;
  }
  bool decodeBool(std::string_view key) override {
    Value v = decodeObject(key);
    return v.isNumber() || v.isBoolean() ? v.boolValue() : false;
  }
  bool failed() const override { return unarchiver_.failed(); }

 private:
  KeyedUnarchiver& unarchiver_;
  const plist::Dictionary& fields_;
};

Value KeyedUnarchiver::decodeEntry(const Value& entry) {
  switch (entry.type()) {
    case plist::Type::String:
    case plist::Type::Integer:
    case plist::Type::Real:
    case plist::Type::Boolean:
    case plist::Type::Data:
    case plist::Type::Date:
      return entry;
    case plist::Type::Dictionary:
      return decodeObject(*entry.dictionary());
    default:
      fail("an entry of $objects is neither a plain value nor an object");
  }
}

std::vector<std::string> KeyedUnarchiver::classChain(const plist::Dictionary& fields) {
  const Value* classRef = fields.find(layout::kClassKey);
  if (!classRef || !classRef->isUID()) fail("an object without $class");
  std::uint64_t uid = classRef->uid().value;
  if (uid == 0 || uid >= objects_.size()) fail("$class out of range");
  const plist::Dictionary* classInfo = objects_[uid].ifDictionary();
  const std::string* name = classInfo ? classInfo->get(layout::kClassNameKey).ifString() : nullptr;
  if (!name) fail("a class without $classname");
  std::vector<std::string> chain{*name};
  if (const plist::Array* supers = classInfo->get(layout::kClassesKey).ifArray()) {
    for (const Value& s : *supers) {
      if (const std::string* text = s.ifString(); text && *text != *name) chain.push_back(*text);
    }
  }
  return chain;
}

Value KeyedUnarchiver::decodeObject(const plist::Dictionary& fields) {
  std::vector<std::string> chain = classChain(fields);
  // The class itself, else the nearest superclass this process knows.
  for (const std::string& className : chain) {
    bool known = false;
    Value builtin = decodeBuiltin(className, fields, &known);
    if (known) return builtin;
    if (auto coder = coderForClassName(className)) {
      ObjectDecoder decoder(*this, fields);
      GWObjectRef object;
      try {
        object = coder->decode(decoder);
      } catch (const std::exception& e) {
        fail(className + " raised: " + e.what());
      }
      if (failed_) fail("a field of " + className + " could not be decoded");
      if (!object) fail(className + " refused its fields");
      return Value(object);
    }
  }
  fail("unknown class " + chain.front());
}

plist::ArrayRef KeyedUnarchiver::referencedItems(const plist::Dictionary& fields,
                                                 std::string_view key) {
  const plist::Array* refs = fields.get(key).ifArray();
  if (!refs) fail(std::string(key) + " missing");
  std::vector<Value> items;
  items.reserve(refs->size());
  for (const Value& ref : *refs) {
    Value item = resolve(ref);
    if (item.isNull()) fail("nil inside a collection");
    items.push_back(std::move(item));
  }
  return plist::Array::make(std::move(items));
}

Value KeyedUnarchiver::decodeBuiltin(std::string_view className, const plist::Dictionary& fields,
                                     bool* known) {
  *known = true;
  if (className == layout::kArrayClass || className == layout::kMutableArrayClass) {
    plist::ArrayRef items = referencedItems(fields, layout::kObjectsField);
    if (className == layout::kArrayClass) items->makeImmutable();
    return Value(items);
  }
  if (className == layout::kDictionaryClass || className == layout::kMutableDictionaryClass) {
    plist::ArrayRef keys = referencedItems(fields, layout::kKeysField);
    plist::ArrayRef values = referencedItems(fields, layout::kObjectsField);
    if (keys->size() != values->size()) fail("NS.keys and NS.objects differ in length");
    auto dictionary = plist::Dictionary::make();
    for (std::size_t i = 0; i < keys->size(); ++i) {
      const std::string* key = (*keys)[i].ifString();
      if (!key) fail("a dictionary key is not a string");
      dictionary->set(*key, (*values)[i]);
    }
    if (className == layout::kDictionaryClass) dictionary->makeImmutable();
    return Value(dictionary);
  }
  if (className == layout::kDateClass) {
    const Value& time = fields.get(layout::kTimeField);
    if (!time.isNumber()) fail("NS.time is not a number");
    return Value(plist::Date{time.doubleValue()});
  }
  if (className == layout::kStringClass || className == layout::kMutableStringClass) {
    Value text = resolveField(fields.get(layout::kStringField));
    if (!text.isString()) fail("NS.string is not a string");
    return text;
  }
  if (className == layout::kDataClass || className == layout::kMutableDataClass) {
    Value bytes = resolveField(fields.get(layout::kDataField));
    if (!bytes.isData()) fail("NS.data is not data");
    return bytes;
  }
  *known = false;
  return Value();
}

// The object table, after checking the archive's frame.
const plist::Array& objectTable(const Value& top) {
  const plist::Dictionary* frame = top.ifDictionary();
  if (!frame) throw Malformed{"not a dictionary"};
  const std::string* archiver = frame->get(layout::kArchiverKey).ifString();
  if (!archiver || *archiver != layout::kArchiverName) throw Malformed{"no $archiver"};
  const Value& version = frame->get(layout::kVersionKey);
  if (!version.isInteger() || version.integer().int64() != layout::kVersion)
    throw Malformed{"unsupported $version"};
  const plist::Array* objects = frame->get(layout::kObjectsKey).ifArray();
  if (!objects || objects->empty()) throw Malformed{"no $objects"};
  return *objects;
}

}  // namespace

plist::Value unarchiveObjectWithData(std::span<const std::uint8_t> data) {
  plist::ReadOptions options;
  options.xmlUIDDictionaries = true;
  plist::ReadResult read = plist::readPropertyList(data, options);
  if (!read) {
    GW_LOG(0, "*** Not a keyed archive: %s", read.error);
    return Value();
  }
  try {
    const plist::Array& objects = objectTable(*read.value);
    const plist::Dictionary* top = read.value->dictionary()->get(layout::kTopKey).ifDictionary();
    const Value* root = top ? top->find(layout::kRootKey) : nullptr;
    if (!root) throw Malformed{"no root in $top"};
    KeyedUnarchiver unarchiver(objects);
    return unarchiver.resolve(*root);
  } catch (const Malformed& malformed) {
    GW_LOG(0, "*** Not a keyed archive: %s", malformed.reason);
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
  return Value();
}

}  // namespace gw::archive
