// The keys and class names of the keyed-archive layout, shared by the archiver and the unarchiver.
//
//   { "$archiver": "NSKeyedArchiver", "$version": 100000,
//     "$top": { "root": UID(r) },
//     "$objects": [ "$null", ...,
//                   { <key>: <inline scalar or UID>, ..., "$class": UID(c) },   an object
//                   { "$classname": "NSMutableArray", "$classes": ["NSMutableArray", "NSArray",
//                     "NSObject"] },                                            its class
//                   "text", 42, 1.5, true, <data>, ... ] }                      plain values
//
// UID 0 is nil. Arrays keep "NS.objects" (UIDs); dictionaries "NS.keys" and "NS.objects" (UIDs,
// pairwise); dates "NS.time" (a real, seconds since 2001-01-01 UTC). Coded keys that begin with
// "$" are stored with one more "$" in front. XML carries a UID as {"CF$UID": n}.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace gw::archive::layout {

inline constexpr std::string_view kArchiverKey = "$archiver";
inline constexpr std::string_view kArchiverName = "NSKeyedArchiver";
inline constexpr std::string_view kVersionKey = "$version";
inline constexpr std::int64_t kVersion = 100000;
inline constexpr std::string_view kObjectsKey = "$objects";
inline constexpr std::string_view kTopKey = "$top";
inline constexpr std::string_view kRootKey = "root";
inline constexpr std::string_view kNull = "$null";
inline constexpr std::string_view kClassKey = "$class";
inline constexpr std::string_view kClassNameKey = "$classname";
inline constexpr std::string_view kClassesKey = "$classes";
inline constexpr std::string_view kXMLUIDKey = "CF$UID";

inline constexpr std::string_view kObjectsField = "NS.objects";
inline constexpr std::string_view kKeysField = "NS.keys";
inline constexpr std::string_view kTimeField = "NS.time";
inline constexpr std::string_view kStringField = "NS.string";
inline constexpr std::string_view kDataField = "NS.data";

inline constexpr std::string_view kRootClass = "NSObject";
inline constexpr std::string_view kArrayClass = "NSArray";
inline constexpr std::string_view kMutableArrayClass = "NSMutableArray";
inline constexpr std::string_view kDictionaryClass = "NSDictionary";
inline constexpr std::string_view kMutableDictionaryClass = "NSMutableDictionary";
inline constexpr std::string_view kDateClass = "NSDate";
inline constexpr std::string_view kStringClass = "NSString";
inline constexpr std::string_view kMutableStringClass = "NSMutableString";
inline constexpr std::string_view kDataClass = "NSData";
inline constexpr std::string_view kMutableDataClass = "NSMutableData";

// A coded key as stored: "$" keys get one more "$".
inline std::string storedKey(std::string_view key) {
  return key.starts_with('$') ? "$" + std::string(key) : std::string(key);
}

}  // namespace gw::archive::layout
