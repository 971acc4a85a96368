// Keyed archives: object graphs as property lists in the standard keyed-archive layout.
//
// An archive is a property list {"$archiver": "NSKeyedArchiver", "$version": 100000, "$objects":
// [...], "$top": {"root": UID}}. "$objects"[0] is the string "$null"; every other entry is a
// string, number or data stored as itself, or an object dictionary whose keys are the coded keys
// plus "$class", the UID of a class dictionary {"$classname": name, "$classes": [name, super...]}.
// Arrays and dictionaries are the classes "NSArray"/"NSMutableArray" and "NSDictionary"/
// "NSMutableDictionary" with "NS.objects" (and "NS.keys") arrays of UIDs; dates are "NSDate" with
// "NS.time" (seconds since 2001). Binary archives carry UIDs natively, XML ones as {"CF$UID": n}.
//
// Library objects (GWObject subclasses) take part through a coder registered once per class:
// registerCoder() maps the object's dynamic type to a class name for writing and the class name
// back to a decode function for reading. Reading is bounded and cycle-safe: a reference out of
// range, a reference cycle, nesting deeper than kMaxArchiveDepth, a missing or unknown class or a
// field of the wrong type makes the whole archive fail with a null Value and one log line. Nothing
// here throws. The registry is locked; archiving and unarchiving may run on any thread.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <typeindex>
#include <typeinfo>
#include <vector>

namespace gw::archive {

// Objects nested deeper than this (arrays in arrays, objects in objects) fail the archive.
inline constexpr unsigned kMaxArchiveDepth = 256;

// What an object's encode function writes its fields with. Keys are the object's own; a key that
// begins with "$" is stored with one more "$" so that it cannot clash with the layout's keys.
class GW_EXPORT Encoder {
 public:
  virtual ~Encoder() = default;
  // Any archivable value: a string, number, boolean, date, data, array, dictionary or registered
  // object, stored in "$objects" and referenced by UID. A null value is stored as "$null".
  virtual void encodeObject(std::string_view key, const plist::Value& value) = 0;
  // Scalars stored inline in the object's dictionary.
  virtual void encodeInt(std::string_view key, std::int64_t value) = 0;
  virtual void encodeDouble(std::string_view key, double value) = 0;
  virtual void encodeBool(std::string_view key, bool value) = 0;
};

// What an object's decode function reads its fields with. A missing key reads as a null Value, 0
// or false. A referenced value that cannot be decoded fails the whole archive (failed() turns
// true and the decode function's result is dropped).
class GW_EXPORT Decoder {
 public:
  virtual ~Decoder() = default;
  virtual bool containsValueForKey(std::string_view key) const = 0;
  virtual plist::Value decodeObject(std::string_view key) = 0;
  // Numbers stored inline or referenced (as a number object) both read; other types read 0.
  virtual std::int64_t decodeInt(std::string_view key) = 0;
  virtual double decodeDouble(std::string_view key) = 0;
  virtual bool decodeBool(std::string_view key) = 0;
  virtual bool failed() const = 0;
};

// How one class is archived. classes lists the class name first, then its superclasses (for
// "$classes"). encode is called with an object of the registered type; decode returns the new
// object, or nullptr to fail the archive. Either may throw: the archive then fails (logged).
struct ClassCoder {
  std::string className;
  std::vector<std::string> classes;
  std::function<void(const GWObject& object, Encoder& coder)> encode;
  std::function<GWObjectRef(Decoder& coder)> decode;
};

// Registers (or replaces) the coder of objects whose dynamic type is type, and of archived
// objects of coder.className.
GW_EXPORT void registerCoder(std::type_index type, ClassCoder coder);

template <class T>
void registerCoder(ClassCoder coder) {
  registerCoder(std::type_index(typeid(T)), std::move(coder));
}

// The archive of root (objects must have a registered coder), binary by default. Throws nothing;
// an empty vector when something cannot be archived (logged): an object without a coder, a UID
// or a reference cycle in root.
GW_EXPORT std::vector<std::uint8_t> archivedDataWithRootObject(
    const plist::Value& root, plist::Format format = plist::Format::Binary);

// The class name value would be archived under ("NSArray", "NSNumber", a registered coder's
// name...), for messages about unexpected objects; "nil" for null.
GW_EXPORT std::string className(const plist::Value& value);

// The decoded root object, or a null Value for anything that is not a well-formed archive (logged).
// Arrays and dictionaries come back mutable when archived as the mutable classes.
GW_EXPORT plist::Value unarchiveObjectWithData(std::span<const std::uint8_t> data);

}  // namespace gw::archive
