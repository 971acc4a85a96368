// Local directory records: the users' node of this host's directory service.
//
// Each record is one property-list file "<root>/var/lib/gatewise/directory/users/<name>.plist"
// holding a dictionary of attribute name to array of values, kept beside the password database
// by the tools that manage accounts. A record without a "name" attribute takes its file name.
//
// Queries read the folder afresh on every call and keep no state, so any thread may call them.
// A record file that cannot be read, or is not such a dictionary, is skipped and the reason is
// logged at level 0; a query that cannot be made returns nullopt. Returned dictionaries are new,
// mutable, and owned by the caller. Nothing here throws.
#pragma once

#include <gatewise/plist.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gw::directory {

inline constexpr const char* kRecordTypeUsers = "dsRecTypeStandard:Users";
inline constexpr const char* kAttributeRecordName = "name";
inline constexpr const char* kAttributeRealName = "dsAttrTypeStandard:RealName";
inline constexpr const char* kAttributeManagedSettings = "dsAttrTypeStandard:QRMSettings";

// Match types, in the directory service's numbering: a comparison in the low byte, and 0x0100
// for comparing without regard to case.
enum MatchType : std::uint32_t {
  kMatchEqualTo = 0x2001,
  kMatchBeginsWith = 0x2002,
  kMatchEndsWith = 0x2003,
  kMatchContains = 0x2004,
  kMatchCaseInsensitive = 0x0100,
  kMatchBeginsWithCaseInsensitive = 0x2102,
};

struct RecordQuery {
  std::string recordType = kRecordTypeUsers;
  std::string attribute;  // compared attribute
  std::uint32_t matchType = kMatchEqualTo;
  std::vector<std::string> values;  // a record matches when one value of attribute matches one
  std::vector<std::string> returnAttributes;  // empty: every attribute
};

// The folder holding the users' records, below the system root.
std::string usersFolder();

// The matching records, each reduced to the requested attributes that it has (records with none
// of them are left out), in record-name order. nullopt when the query cannot be made: an unknown
// record type or match type, or no attribute.
std::optional<std::vector<plist::DictionaryRef>> queryRecords(const RecordQuery& query);

// One user's record, or nullptr when there is none or the name cannot be a record name.
plist::DictionaryRef readUserRecord(std::string_view name);

}  // namespace gw::directory
