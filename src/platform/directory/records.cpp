#include "platform/directory/records.h"

#include <dirent.h>
#include <gatewise/log.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "platform/fs/root.h"

namespace gw::directory {
namespace {

constexpr std::string_view kRecordSuffix = ".plist";

std::string lowercased(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = char(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool isKnownMatchType(std::uint32_t type) {
  std::uint32_t comparison = type & ~std::uint32_t(kMatchCaseInsensitive);
  return comparison >= kMatchEqualTo && comparison <= kMatchContains;
}

bool matches(std::string_view candidate, std::string_view wanted, std::uint32_t type) {
  std::string a, b;
  if (type & kMatchCaseInsensitive) {
    a = lowercased(candidate);
    b = lowercased(wanted);
    candidate = a;
    wanted = b;
  }
  switch (type & ~std::uint32_t(kMatchCaseInsensitive)) {
    case kMatchEqualTo:
      return candidate == wanted;
    case kMatchBeginsWith:
      return candidate.starts_with(wanted);
    case kMatchEndsWith:
      return candidate.ends_with(wanted);
    case kMatchContains:
      return candidate.find(wanted) != std::string_view::npos;
  }
  return false;
}

// The record as stored, checked to be attribute name -> array; nullptr (logged) otherwise.
plist::DictionaryRef readRecordFile(const std::string& path, std::string_view name) {
  plist::ReadResult result = plist::readPropertyListFile(path);
  if (!result) {
    GW_LOG(0, "*** Skipping directory record %s: %s", path.c_str(), result.error.c_str());
    return nullptr;
  }
  if (!result.value->isDictionary()) {
    GW_LOG(0, "*** Skipping directory record %s: not a dictionary", path.c_str());
    return nullptr;
  }
  for (const auto& [attribute, values] : *result.value->dictionary()) {
    if (!values.isArray()) {
      GW_LOG(0, "*** Skipping directory record %s: attribute %s is not an array", path.c_str(),
             attribute.c_str());
      return nullptr;
    }
  }
  auto record = plist::mutableCopy(*result.value).dictionary();
  if (!record->contains(kAttributeRecordName)) {
    record->set(kAttributeRecordName, plist::Value::newArray({std::string(name)}));
  }
  return record;
}

bool recordMatches(const plist::Dictionary& record, const RecordQuery& query) {
  const plist::Value* values = record.find(query.attribute);
  if (!values || !values->isArray()) return false;
  for (const plist::Value& value : *values->array()) {
    const std::string* text = value.ifString();
    if (!text) continue;
    for (const std::string& wanted : query.values) {
      if (matches(*text, wanted, query.matchType)) return true;
    }
  }
  return false;
}

plist::DictionaryRef reduced(const plist::DictionaryRef& record,
                             const std::vector<std::string>& attributes) {
  if (attributes.empty()) return record;
  auto out = plist::Dictionary::make();
  for (const std::string& attribute : attributes) {
    if (const plist::Value* value = record->find(attribute)) out->set(attribute, *value);
  }
  return out;
}

std::vector<std::string> recordNames(const std::string& folder) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
  if (!dir) return names;  // no folder: a node without records
  while (dirent* entry = ::readdir(dir.get())) {
    std::string_view file = entry->d_name;
    if (file.size() <= kRecordSuffix.size() || !file.ends_with(kRecordSuffix)) continue;
    if (file.front() == '.') continue;  // editors' and installers' temporary files
    names.emplace_back(file.substr(0, file.size() - kRecordSuffix.size()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

std::string usersFolder() { return fs::rootedPath("/var/lib/gatewise/directory/users"); }

std::optional<std::vector<plist::DictionaryRef>> queryRecords(const RecordQuery& query) {
  if (query.recordType != kRecordTypeUsers || query.attribute.empty() ||
      !isKnownMatchType(query.matchType)) {
    return std::nullopt;
  }
  std::vector<plist::DictionaryRef> found;
  std::string folder = usersFolder();
  for (const std::string& name : recordNames(folder)) {
    plist::DictionaryRef record =
        readRecordFile(folder + "/" + name + std::string(kRecordSuffix), name);
    if (!record || !recordMatches(*record, query)) continue;
    plist::DictionaryRef details = reduced(record, query.returnAttributes);
    if (!details->empty()) found.push_back(std::move(details));
  }
  return found;
}

plist::DictionaryRef readUserRecord(std::string_view name) {
  if (!fs::isSafeName(name)) return nullptr;
  std::string path = usersFolder() + "/" + std::string(name) + std::string(kRecordSuffix);
  return readRecordFile(path, name);
}

}  // namespace gw::directory
