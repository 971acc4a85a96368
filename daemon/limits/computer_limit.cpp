#include "daemon/limits/computer_limit.h"

#include <gatewise/core.h>
#include <gatewise/log.h>

#include <cstdio>

namespace gw::daemon {
namespace {

constexpr std::int64_t kSecondsPerWeek = 7 * 86400;

// "HH:MM:SS" with each field in range; the seconds of the day, or -1.
int secondsOfTimeText(const plist::Value& value) {
  const std::string* text = value.ifString();
  if (!text || text->size() != 8 || (*text)[2] != ':' || (*text)[5] != ':') return -1;
  int fields[3];
  for (int i = 0; i < 3; ++i) {
    char a = (*text)[i * 3], b = (*text)[i * 3 + 1];
    if (a < '0' || a > '9' || b < '0' || b > '9') return -1;
    fields[i] = (a - '0') * 10 + (b - '0');
  }
  if (fields[0] > 23 || fields[1] > 59 || fields[2] > 59) return -1;
  return fields[0] * 3600 + fields[1] * 60 + fields[2];
}

std::string checkCurfews(const plist::Value& stored) {
  const plist::Dictionary* days = stored.ifDictionary();
  if (!days) return "curfews are not a dictionary";
  for (const auto& [day, ranges] : *days) {
    if (GWCurfews::dayIndexForKeyString(day) < 0) return "unknown curfew day \"" + day + "\"";
    const plist::Array* list = ranges.ifArray();
    if (!list) return "curfews of " + day + " are not an array";
    int previousEnd = -1;
    for (const plist::Value& range : *list) {
      const plist::Dictionary* pair = range.ifDictionary();
      if (!pair) return "a curfew of " + day + " is not a dictionary";
      int start = secondsOfTimeText(pair->get("start"));
      int end = secondsOfTimeText(pair->get("end"));
      if (start < 0 || end < 0) return "a curfew of " + day + " has a time out of range";
      if (start > end) return "a curfew of " + day + " ends before it starts";
      if (start < previousEnd) return "the curfews of " + day + " are unsorted or overlap";
      previousEnd = end;
    }
  }
  return {};
}

std::optional<std::int64_t> integerOf(const plist::Dictionary& d, const char* key, bool* bad) {
  const plist::Value* v = d.find(key);
  if (!v) return 0;  // a missing number reads as 0
  if (!v->isInteger()) {
    *bad = true;
    return std::nullopt;
  }
  return v->integer().isBigUnsigned() ? INT64_MAX : v->integer().int64();
}

std::string readAllowances(const plist::Value& stored, std::vector<AllowanceRule>* rules) {
  const plist::Array* list = stored.ifArray();
  if (!list) return "allowances are not an array";
  for (const plist::Value& element : *list) {
    const plist::Dictionary* d = element.ifDictionary();
    if (!d) return "an allowance is not a dictionary";
    bool bad = false;
    auto seconds = integerOf(*d, "timeLimitSeconds", &bad);
    auto from = integerOf(*d, "fromDay", &bad);
    auto to = integerOf(*d, "toDay", &bad);
    auto span = integerOf(*d, "span", &bad);
    if (bad) return "an allowance has a value that is not an integer";
    if (*seconds < 0 || *seconds > kSecondsPerWeek) return "an allowance is out of range";
    if (*from < 0 || *from > 6 || *to < 0 || *to > 6) return "an allowance day is out of range";
    rules->push_back({std::int32_t(*seconds), std::int32_t(*from), std::int32_t(*to), *span != 0});
  }
  return {};
}

bool flag(const plist::Dictionary& d, const char* key) {
  const plist::Value* v = d.find(key);
  return v && v->isBoolean() && v->boolean();
}

}  // namespace

ParsedLimits parseComputerLimit(const plist::Value& preference) {
  const plist::Dictionary* top = preference.ifDictionary();
  if (!top) return {std::nullopt, "the time limits are not a dictionary"};
  const plist::Value* listValue = top->find("limits-list");
  if (!listValue) return {};
  const plist::Array* list = listValue->ifArray();
  if (!list) return {std::nullopt, "\"limits-list\" is not an array"};
  const plist::Dictionary* computer = nullptr;
  for (const plist::Value& item : *list) {
    const plist::Dictionary* d = item.ifDictionary();
    if (!d) continue;
    const std::string* type = d->get("itemType").ifString();
    if (type && *type == kComputerItemType) computer = d;  // the last one wins
  }
  if (!computer || !flag(*computer, "enabled")) return {};

  ComputerLimit limit;
  if (const std::string* name = computer->get("name").ifString()) limit.name = *name;
  if (const plist::Value* curfews = computer->find("curfews")) {
    std::string problem = checkCurfews(*curfews);
    if (!problem.empty()) return {std::nullopt, problem};
    limit.curfews = GWCurfews::curfewsWithDictionary(*curfews);
    if (limit.curfews && !limit.curfews->hasCurfews()) limit.curfews = nullptr;
  }
  if (const plist::Value* allowances = computer->find("allowances")) {
    std::vector<AllowanceRule> rules;
    std::string problem = readAllowances(*allowances, &rules);
    if (!problem.empty()) return {std::nullopt, problem};
    if (flag(*computer, "allowancesActive")) limit.allowances = std::move(rules);
  }
  if (!limit.curfews && limit.allowances.empty()) return {};
  return {std::move(limit), {}};
}

const ComputerLimit* ComputerLimitCache::limitFor(const std::string& userName) {
  std::optional<std::string> path = GWManagedPreferencesFileForUser(userName, kTimeLimitsDomain);
  if (!path) return nullptr;
  FileStamp stamp = stampOf(*path);
  auto it = entries_.find(userName);
  if (it != entries_.end() && it->second.stamp == stamp) {
    return it->second.limit ? &*it->second.limit : nullptr;
  }
  Entry entry{stamp, std::nullopt};
  if (!stamp.absent) {
    std::string error;
    std::optional<std::string> bytes = readRegularFile(*path, kMaxLimitsFileSize, &error);
    plist::ReadResult read;
    if (bytes) read = plist::readPropertyList(std::string_view(*bytes));
    if (!bytes || !read) {
      GW_LOG(0, "*** Ignoring the time limits of %s: %s", userName.c_str(),
             (bytes ? read.error : error).c_str());
    } else {
      ParsedLimits parsed = parseComputerLimit(*read.value);
      if (!parsed.problem.empty()) {
        GW_LOG(0, "*** Ignoring the time limits of %s: %s", userName.c_str(),
               parsed.problem.c_str());
      }
      entry.limit = std::move(parsed.limit);
    }
  }
  auto& stored = entries_[userName] = std::move(entry);
  return stored.limit ? &*stored.limit : nullptr;
}

}  // namespace gw::daemon
