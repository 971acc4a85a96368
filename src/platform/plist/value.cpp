// The property-list value model: typed access, containers, copies and equality.
#include <gatewise/plist.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <unordered_map>
#include <unordered_set>

#include "platform/plist/shared_walk.h"

namespace gw {
GWObject::~GWObject() = default;
}

namespace gw::plist {
namespace {

const char* typeName(Type t) {
  static const char* const names[] = {"null", "boolean", "integer",    "real", "string", "date",
                                      "data", "array",   "dictionary", "UID",  "object"};
  return names[static_cast<int>(t)];
}

[[noreturn]] void throwWrongType(Type have, Type want) {
  throw GWException("NSInvalidArgumentException",
                    std::string("expected ") + typeName(want) + ", found " + typeName(have));
}

const Value& nullValue() {
  static const Value null;
  return null;
}

// Leading white space, an optional sign and decimal digits, as the numeric accessors read strings.
std::int64_t parseLeadingInteger(const std::string& s) {
  std::size_t i = s.find_first_not_of(" \t\n\r");
  if (i == std::string::npos) return 0;
  bool negative = false;
  if (s[i] == '+' || s[i] == '-') negative = s[i++] == '-';
  std::uint64_t magnitude = 0;
  auto [end, ec] = std::from_chars(s.data() + i, s.data() + s.size(), magnitude);
  if (end == s.data() + i) return 0;
  if (ec == std::errc::result_out_of_range || magnitude > std::uint64_t(INT64_MAX)) {
    return negative ? INT64_MIN : INT64_MAX;
  }
  return negative ? -std::int64_t(magnitude) : std::int64_t(magnitude);
}

}  // namespace

Date Date::now() {
  using namespace std::chrono;
  double unix = duration<double>(system_clock::now().time_since_epoch()).count();
  return fromUnixTime(unix);
}

Value Value::newArray(std::initializer_list<Value> items) { return Array::make(items); }

Value Value::newDictionary(std::initializer_list<std::pair<std::string, Value>> items) {
  auto d = Dictionary::make();
  for (const auto& [k, v] : items) d->set(k, v);
  return d;
}

#define GW_STRICT_GETTER(ReturnType, name, VariantType, TypeTag) \
  ReturnType Value::name() const {                               \
    if (auto p = std::get_if<VariantType>(&v_)) return *p;       \
    throwWrongType(type(), Type::TypeTag);                       \
  }
GW_STRICT_GETTER(bool, boolean, bool, Boolean)
GW_STRICT_GETTER(Integer, integer, Integer, Integer)
GW_STRICT_GETTER(double, real, double, Real)
GW_STRICT_GETTER(const std::string&, string, std::string, String)
GW_STRICT_GETTER(Date, date, Date, Date)
GW_STRICT_GETTER(const ArrayRef&, array, ArrayRef, Array)
GW_STRICT_GETTER(const DictionaryRef&, dictionary, DictionaryRef, Dictionary)
GW_STRICT_GETTER(UID, uid, UID, UID)
GW_STRICT_GETTER(const GWObjectRef&, object, GWObjectRef, Object)
#undef GW_STRICT_GETTER

const Data& Value::data() const {
  if (auto p = std::get_if<std::shared_ptr<const Data>>(&v_)) return **p;
  throwWrongType(type(), Type::Data);
}

Array* Value::ifArray() const {
  auto p = std::get_if<ArrayRef>(&v_);
  return p ? p->get() : nullptr;
}

Dictionary* Value::ifDictionary() const {
  auto p = std::get_if<DictionaryRef>(&v_);
  return p ? p->get() : nullptr;
}

std::int64_t Value::intValue() const {
  switch (type()) {
    case Type::Boolean:
      return boolean() ? 1 : 0;
    case Type::Integer:
      return integer().int64();
    case Type::Real: {
      double d = real();
      if (std::isnan(d)) return 0;
      if (d >= 9.2233720368547758e18) return INT64_MAX;
      if (d <= -9.2233720368547758e18) return INT64_MIN;
      return std::int64_t(d);
    }
    case Type::String:
      return parseLeadingInteger(string());
    default:
      return 0;
  }
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::Boolean:
      return boolean() ? 1 : 0;
    case Type::Integer:
      return integer().toDouble();
    case Type::Real:
      return real();
    case Type::String: {
      const std::string& s = string();
      std::size_t i = s.find_first_not_of(" \t\n\r");
      if (i == std::string::npos) return 0;
      double d = 0;
      std::from_chars(s.data() + i + (s[i] == '+' ? 1 : 0), s.data() + s.size(), d);
      return d;
    }
    default:
      return 0;
  }
}

bool Value::boolValue() const {
  if (isString()) {
    // Like the string accessor: "YES"/"yes"/"true"/"TRUE" or a non-zero leading number.
    const std::string& s = string();
    std::size_t i = s.find_first_not_of(" \t\n\r");
    if (i == std::string::npos) return false;
    char c = s[i];
    if (c == 'Y' || c == 'y' || c == 'T' || c == 't') return true;
    return parseLeadingInteger(s) != 0;
  }
  if (isReal()) return real() != 0;
  return intValue() != 0;
}

namespace {

// Equality by content. Pairs of shared containers already compared, or being compared further up,
// are taken as equal: any difference below them ends the whole comparison, so a pair met again
// either was equal or is still open (a cycle, equal as far as it goes). That keeps comparing
// values with shared containers linear and stops it at cycles.
class Equality {
 public:
  bool equal(const Value& a, const Value& b) {
    if (a.isNumber() && b.isNumber()) {
      if (a.isInteger() && b.isInteger()) return a.integer() == b.integer();
      if (a.isReal() && b.isReal()) return a.real() == b.real();
      const Value& i = a.isInteger() ? a : b;
      const Value& r = a.isInteger() ? b : a;
      double d = r.real();
      if (d != std::floor(d)) return false;
      return i.integer().toDouble() == d;
    }
    if (a.type() != b.type()) return false;
    switch (a.type()) {
      case Type::Null:
        return true;
      case Type::Boolean:
        return a.boolean() == b.boolean();
      case Type::String:
        return a.string() == b.string();
      case Type::Date:
        return a.date() == b.date();
      case Type::Data:
        return a.data() == b.data();
      case Type::UID:
        return a.uid() == b.uid();
      case Type::Array: {
        const Array& x = *a.array();
        const Array& y = *b.array();
        if (&x == &y) return true;
        if (x.size() != y.size()) return false;
        if (!firstMeeting(a, b)) return true;
        for (std::size_t i = 0; i < x.size(); ++i) {
          if (!equal(x[i], y[i])) return false;
        }
        return true;
      }
      case Type::Dictionary: {
        const Dictionary& x = *a.dictionary();
        const Dictionary& y = *b.dictionary();
        if (&x == &y) return true;
        if (x.size() != y.size()) return false;
        if (!firstMeeting(a, b)) return true;
        auto i = x.begin();
        auto j = y.begin();
        for (; i != x.end(); ++i, ++j) {
          if (i->first != j->first || !equal(i->second, j->second)) return false;
        }
        return true;
      }
      case Type::Object: {
        const GWObjectRef& x = a.object();
        const GWObjectRef& y = b.object();
        if (x == y) return true;
        return x && y && x->isEqual(*y);
      }
      default:
        return false;
    }
  }

 private:
  struct PairHash {
    std::size_t operator()(const std::pair<const void*, const void*>& p) const {
      return std::hash<const void*>{}(p.first) * 31 + std::hash<const void*>{}(p.second);
    }
  };

  // False when this pair of shared containers has been met before.
  bool firstMeeting(const Value& a, const Value& b) {
    const void* x = walk::sharedContainer(a);
    const void* y = walk::sharedContainer(b);
    if (!x || !y) return true;
    return met_.emplace(x, y).second;
  }

  std::unordered_set<std::pair<const void*, const void*>, PairHash> met_;
};

// Deep copies keep the sharing of the original: each shared container is copied once.
class DeepCopy {
 public:
  Value copy(const Value& v) {
    if (!v.isArray() && !v.isDictionary()) return v;
    const void* shared = walk::sharedContainer(v);
    if (shared) {
      auto it = copies_.find(shared);
      if (it != copies_.end()) return it->second;
    }
    if (auto a = v.ifArray()) {
      ArrayRef out = Array::make();
      if (shared) copies_.emplace(shared, out);  // before the elements: a cycle finds it
      std::vector<Value> items;
      items.reserve(a->size());
      for (const Value& item : *a) items.push_back(copy(item));
      out->mutableItems() = std::move(items);
      return out;
    }
    const Dictionary& d = *v.ifDictionary();
    DictionaryRef out = Dictionary::make();
    if (shared) copies_.emplace(shared, out);
    Dictionary::Map entries;
    for (const auto& [k, item] : d) entries.emplace_hint(entries.end(), k, copy(item));
    out->mutableEntries() = std::move(entries);
    return out;
  }

 private:
  std::unordered_map<const void*, Value> copies_;
};

class Freezer {
 public:
  void freeze(const Value& v) {
    if (!v.isArray() && !v.isDictionary()) return;
    if (const void* shared = walk::sharedContainer(v); shared && !done_.insert(shared).second) {
      return;
    }
    if (auto a = v.ifArray()) {
      a->makeImmutable();
      for (const Value& item : *a) freeze(item);
    } else if (auto d = v.ifDictionary()) {
      d->makeImmutable();
      for (const auto& entry : *d) freeze(entry.second);
    }
  }

 private:
  std::unordered_set<const void*> done_;
};

// Valid for writing: no null or object anywhere, no container inside itself.
class Validity {
 public:
  bool check(const Value& v) {
    switch (v.type()) {
      case Type::Null:
      case Type::Object:
        return false;
      case Type::Array:
      case Type::Dictionary:
        break;
      default:
        return true;
    }
    const void* shared = walk::sharedContainer(v);
    if (shared) {
      auto [it, added] = onPath_.try_emplace(shared, true);
      if (!added) return !it->second;  // on the path: a cycle; else checked already
    }
    bool ok = true;
    if (auto a = v.ifArray()) {
      for (const Value& item : *a) {
        if (!(ok = check(item))) break;
      }
    } else {
      for (const auto& entry : *v.ifDictionary()) {
        if (!(ok = check(entry.second))) break;
      }
    }
    if (shared) onPath_[shared] = false;
    return ok;
  }

 private:
  std::unordered_map<const void*, bool> onPath_;  // true while below it
};

}  // namespace

bool operator==(const Value& a, const Value& b) { return Equality().equal(a, b); }

const Value& Array::at(std::size_t i) const {
  if (i >= items_.size()) {
    throw GWException("NSRangeException", "index " + std::to_string(i) + " beyond bounds [0 .. " +
                                              std::to_string(items_.size()) + ")");
  }
  return items_[i];
}

void Array::checkMutable() const {
  if (!mutable_) {
    throw GWException("NSInternalInconsistencyException",
                      "mutating method sent to immutable array");
  }
}

void Array::append(Value v) {
  checkMutable();
  items_.push_back(std::move(v));
}

void Array::insert(std::size_t index, Value v) {
  checkMutable();
  if (index > items_.size()) at(index);  // throws the range exception
  items_.insert(items_.begin() + std::ptrdiff_t(index), std::move(v));
}

void Array::set(std::size_t index, Value v) {
  checkMutable();
  at(index);
  items_[index] = std::move(v);
}

void Array::removeAt(std::size_t index) {
  checkMutable();
  at(index);
  items_.erase(items_.begin() + std::ptrdiff_t(index));
}

void Array::clear() {
  checkMutable();
  items_.clear();
}

std::vector<Value>& Array::mutableItems() {
  checkMutable();
  return items_;
}

const Value* Dictionary::find(std::string_view key) const {
  auto it = entries_.find(key);
  return it == entries_.end() ? nullptr : &it->second;
}

const Value& Dictionary::get(std::string_view key) const {
  const Value* v = find(key);
  return v ? *v : nullValue();
}

void Dictionary::checkMutable() const {
  if (!mutable_) {
    throw GWException("NSInternalInconsistencyException",
                      "mutating method sent to immutable dictionary");
  }
}

void Dictionary::set(std::string key, Value v) {
  checkMutable();
  entries_.insert_or_assign(std::move(key), std::move(v));
}

void Dictionary::remove(std::string_view key) {
  checkMutable();
  auto it = entries_.find(key);
  if (it != entries_.end()) entries_.erase(it);
}

void Dictionary::clear() {
  checkMutable();
  entries_.clear();
}

Dictionary::Map& Dictionary::mutableEntries() {
  checkMutable();
  return entries_;
}

Value mutableCopy(const Value& v) {
  if (auto a = v.ifArray()) return Array::make(a->items());
  if (auto d = v.ifDictionary()) return Dictionary::make(d->entries());
  return v;
}

Value deepMutableCopy(const Value& v) { return DeepCopy().copy(v); }

void makeImmutable(const Value& v) { Freezer().freeze(v); }

bool isValidPropertyList(const Value& v, Format) { return Validity().check(v); }

}  // namespace gw::plist
