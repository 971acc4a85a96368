// Property lists: the value model every part of Gatewise exchanges, and its two encodings.
//
// A Value is null, a boolean, an integer (the whole signed and unsigned 64-bit range), a real, a
// UTF-8 string, a date, data, an array, a dictionary with string keys, a UID (keyed archives only)
// or a shared GWObject (live objects in memory; never written). XML carries a UID as the
// dictionary whose single key is "CF$UID" with an integer value, and reads that form back as a UID.
// Arrays and dictionaries are shared handles, like the reference types they stand for: copying a
// Value shares its container, and mutableCopy/deepMutableCopy make new ones. A container may be
// immutable; mutating it then throws GWException. Values are not synchronised: share one between
// threads only for reading.
//
// Reading detects the encoding (XML 1.0 or binary "bplist00"), bounds every offset and count,
// refuses cycles and nesting deeper than ReadOptions::maxDepth, and reports failure as a result
// with a one-line reason, never by throwing. Writing a file is atomic: the old file stays whole
// until the new one has been written and synced.
#pragma once

#include <gatewise/exception.h>
#include <gatewise/export.h>
#include <gatewise/object.h>

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace gw::plist {

class Array;
class Dictionary;
using ArrayRef = std::shared_ptr<Array>;
using DictionaryRef = std::shared_ptr<Dictionary>;
using Data = std::vector<std::uint8_t>;

enum class Type : std::uint8_t {
  Null,
  Boolean,
  Integer,
  Real,
  String,
  Date,
  Data,
  Array,
  Dictionary,
  UID,
  Object
};

// An integer over the union of the signed and unsigned 64-bit ranges. Values that fit int64_t are
// stored signed; only values above INT64_MAX are marked unsigned, so each number has one form.
class GW_EXPORT Integer {
 public:
  constexpr Integer() = default;
  static constexpr Integer fromSigned(std::int64_t v) { return Integer(std::uint64_t(v), false); }
  static constexpr Integer fromUnsigned(std::uint64_t v) {
    return Integer(v, v > std::uint64_t(INT64_MAX));
  }

  constexpr bool isBigUnsigned() const { return bigUnsigned_; }  // above INT64_MAX
  constexpr bool isNegative() const { return !bigUnsigned_ && std::int64_t(bits_) < 0; }
  constexpr std::int64_t int64() const { return std::int64_t(bits_); }  // wraps above INT64_MAX
  constexpr std::uint64_t uint64() const { return bits_; }              // wraps below 0
  constexpr double toDouble() const {
    return bigUnsigned_ ? double(bits_) : double(std::int64_t(bits_));
  }

  friend constexpr bool operator==(const Integer&, const Integer&) = default;

 private:
  constexpr Integer(std::uint64_t bits, bool bigUnsigned)
      : bits_(bits), bigUnsigned_(bigUnsigned) {}
  std::uint64_t bits_ = 0;
  bool bigUnsigned_ = false;
};

// A moment in time: seconds since 2001-01-01 00:00:00 UTC, the property-list reference date.
struct GW_EXPORT Date {
  static constexpr double kSecondsFrom1970To2001 = 978307200.0;

  double secondsSinceReferenceDate = 0;

  static Date fromUnixTime(double unixSeconds) { return {unixSeconds - kSecondsFrom1970To2001}; }
  static Date now();
  double unixTime() const { return secondsSinceReferenceDate + kSecondsFrom1970To2001; }

  friend auto operator<=>(const Date&, const Date&) = default;
};

// A reference into a keyed archive's object table.
struct UID {
  std::uint64_t value = 0;
  friend auto operator<=>(const UID&, const UID&) = default;
};

class GW_EXPORT Value {
 public:
  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  template <std::integral T>
  requires(!std::same_as<T, bool> && !std::same_as<T, char>) Value(T n)
      : v_(std::is_signed_v<T> ? Integer::fromSigned(std::int64_t(n))
                               : Integer::fromUnsigned(std::uint64_t(n))) {}
  Value(Integer n) : v_(n) {}
  Value(double d) : v_(d) {}
  Value(float f) : v_(double(f)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(Date d) : v_(d) {}
  Value(Data d) : v_(std::make_shared<const Data>(std::move(d))) {}
  Value(std::shared_ptr<const Data> d) : v_(std::move(d)) {}
  Value(ArrayRef a) : v_(std::move(a)) {}
  Value(DictionaryRef d) : v_(std::move(d)) {}
  Value(UID u) : v_(u) {}
  Value(GWObjectRef o) : v_(std::move(o)) {}
  template <class T>
  requires std::derived_from<T, GWObject> Value(std::shared_ptr<T> o)
      : v_(GWObjectRef(std::move(o))) {}

  // New mutable containers, for building values in code.
  static Value newArray(std::initializer_list<Value> items = {});
  static Value newDictionary(std::initializer_list<std::pair<std::string, Value>> items = {});

  Type type() const { return Type(v_.index()); }
  bool isNull() const { return type() == Type::Null; }
  bool isBoolean() const { return type() == Type::Boolean; }
  bool isInteger() const { return type() == Type::Integer; }
  bool isReal() const { return type() == Type::Real; }
  bool isNumber() const { return isInteger() || isReal(); }
  bool isString() const { return type() == Type::String; }
  bool isDate() const { return type() == Type::Date; }
  bool isData() const { return type() == Type::Data; }
  bool isArray() const { return type() == Type::Array; }
  bool isDictionary() const { return type() == Type::Dictionary; }
  bool isUID() const { return type() == Type::UID; }
  bool isObject() const { return type() == Type::Object; }

  // Strict access: throws GWException ("NSInvalidArgumentException") when the type differs.
  bool boolean() const;
  Integer integer() const;
  double real() const;
  const std::string& string() const;
  Date date() const;
  const Data& data() const;
  const ArrayRef& array() const;
  const DictionaryRef& dictionary() const;
  UID uid() const;
  const GWObjectRef& object() const;

  // Lenient access, nullptr when the type differs.
  const std::string* ifString() const { return std::get_if<std::string>(&v_); }
  Array* ifArray() const;
  Dictionary* ifDictionary() const;
  template <class T>
  std::shared_ptr<T> ifObject() const {
    auto o = std::get_if<GWObjectRef>(&v_);
    return o ? std::dynamic_pointer_cast<T>(*o) : nullptr;
  }

  // Conversions in the manner of the numeric value accessors: numbers, booleans and strings of
  // digits convert; anything else gives the fallback (0, false).
  std::int64_t intValue() const;
  double doubleValue() const;
  bool boolValue() const;

  // Equality by content. Integers and reals compare by numeric value; booleans equal only booleans.
  friend GW_EXPORT bool operator==(const Value& a, const Value& b);

 private:
  std::variant<std::monostate, bool, Integer, double, std::string, Date,
               std::shared_ptr<const Data>, ArrayRef, DictionaryRef, UID, GWObjectRef>
      v_;
};

class GW_EXPORT Array {
 public:
  Array() = default;
  explicit Array(std::vector<Value> items, bool isMutable = true)
      : items_(std::move(items)), mutable_(isMutable) {}
  static ArrayRef make(std::vector<Value> items = {}, bool isMutable = true) {
    return std::make_shared<Array>(std::move(items), isMutable);
  }

  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const Value& operator[](std::size_t i) const { return items_[i]; }
  const Value& at(std::size_t i) const;  // throws GWException ("NSRangeException")
  const std::vector<Value>& items() const { return items_; }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

  // Mutation throws GWException ("NSInternalInconsistencyException") on an immutable array.
  void append(Value v);
  void insert(std::size_t index, Value v);
  void set(std::size_t index, Value v);
  void removeAt(std::size_t index);
  void clear();
  std::vector<Value>& mutableItems();

  bool isMutable() const { return mutable_; }
  void makeImmutable() { mutable_ = false; }

 private:
  void checkMutable() const;
  std::vector<Value> items_;
  bool mutable_ = true;
};

class GW_EXPORT Dictionary {
 public:
  using Map = std::map<std::string, Value, std::less<>>;

  Dictionary() = default;
  explicit Dictionary(Map entries, bool isMutable = true)
      : entries_(std::move(entries)), mutable_(isMutable) {}
  static DictionaryRef make(Map entries = {}, bool isMutable = true) {
    return std::make_shared<Dictionary>(std::move(entries), isMutable);
  }

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  bool contains(std::string_view key) const { return entries_.find(key) != entries_.end(); }
  const Value* find(std::string_view key) const;
  // The value for key, or a null Value when absent.
  const Value& get(std::string_view key) const;
  const Map& entries() const { return entries_; }
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }

  // Mutation throws GWException ("NSInternalInconsistencyException") on an immutable dictionary.
  void set(std::string key, Value v);
  void remove(std::string_view key);
  void clear();
  Map& mutableEntries();

  bool isMutable() const { return mutable_; }
  void makeImmutable() { mutable_ = false; }

 private:
  void checkMutable() const;
  Map entries_;
  bool mutable_ = true;
};

// A new mutable container holding the same elements (shallow); other values come back unchanged.
GW_EXPORT Value mutableCopy(const Value& v);
// Mutable containers all the way down; leaves are shared or copied as values. A container held in
// several places is copied once, and its copy is held in the same places (cycles included).
GW_EXPORT Value deepMutableCopy(const Value& v);
// Marks the container and every container below it immutable, in place.
GW_EXPORT void makeImmutable(const Value& v);

enum class Format { XML, Binary };

// Whether v can be written in format: no objects or nulls anywhere, and no container inside itself.
// UIDs are valid in both.
GW_EXPORT bool isValidPropertyList(const Value& v, Format format);

// The classic description text that "%@" prints: strings bare at top level and quoted inside
// containers where needed, arrays as "(\n    a,\n    b\n)", dictionaries as "{\n    key =
// value;\n}".
// Containers shared in several places are written out at each place, so the text of a small value
// can be enormous: past kMaxDescriptionSize bytes it is cut off and ends in "...". A container
// inside itself is written as "(...)" or "{...}" where it recurs.
GW_EXPORT std::string description(const Value& v);
inline constexpr std::size_t kMaxDescriptionSize = std::size_t(64) << 20;
// The description, or nullopt when it would be longer than maxBytes (decided before writing when
// the value's shape already shows it).
GW_EXPORT std::optional<std::string> description(const Value& v, std::size_t maxBytes);

enum class Mutability { Immutable, MutableContainers };

struct ReadOptions {
  Mutability mutability = Mutability::Immutable;
  // Read XML dictionaries of the single key "CF$UID" with a non-negative integer as UIDs, the form
  // the XML writer gives them (keyed archives). Off: such dictionaries stay dictionaries.
  bool xmlUIDDictionaries = true;
  // Deeper nesting is refused.
  unsigned maxDepth = 512;
};

struct ReadResult {
  std::optional<Value> value;  // empty on failure
  Format format = Format::XML;
  std::string error;  // one line, set on failure
  explicit operator bool() const { return value.has_value(); }
};

// Files larger than this are refused without being read whole.
inline constexpr std::size_t kMaxPropertyListFileSize = std::size_t(1) << 30;

GW_EXPORT ReadResult readPropertyList(std::span<const std::uint8_t> bytes,
                                      const ReadOptions& options = {});
GW_EXPORT ReadResult readPropertyList(std::string_view bytes, const ReadOptions& options = {});
GW_EXPORT ReadResult readPropertyListFile(const std::string& path, const ReadOptions& options = {});

// The encoded bytes, or nullopt (with *error set) when v is not valid for format.
GW_EXPORT std::optional<std::string> writePropertyList(const Value& v, Format format,
                                                       std::string* error = nullptr);
// Atomic: writes a temporary file in the same folder, syncs it, renames it over path.
GW_EXPORT bool writePropertyListFile(const std::string& path, const Value& v, Format format,
                                     std::string* error = nullptr);

}  // namespace gw::plist
