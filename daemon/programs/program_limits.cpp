#include "daemon/programs/program_limits.h"

#include <gatewise/core.h>
#include <gatewise/log.h>
#include <gatewise/schedule/limit_item.h>

namespace gw::daemon {
namespace {

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

const std::string* stringOf(const plist::Dictionary& d, const char* key) {
  return d.get(key).ifString();
}

// The item read as if it were the computer item: the same strict reader decides whether its
// curfews and allowances are sound.
ParsedLimits scheduleOf(const plist::Dictionary& item) {
  auto copy = plist::Dictionary::make(plist::Dictionary::Map(item.begin(), item.end()));
  copy->set("itemType", std::string(kComputerItemType));
  auto list = plist::Array::make({plist::Value(copy)});
  auto top = plist::Dictionary::make({{"limits-list", plist::Value(list)}});
  return parseComputerLimit(plist::Value(top));
}

}  // namespace

ParsedProgramLimits parseProgramLimits(const plist::Value& preference) {
  ParsedProgramLimits parsed;
  const plist::Dictionary* top = preference.ifDictionary();
  const plist::Array* list = top ? top->get("limits-list").ifArray() : nullptr;
  if (!list) return parsed;
  for (const plist::Value& element : *list) {
    const plist::Dictionary* item = element.ifDictionary();
    if (!item) continue;
    const std::string* type = stringOf(*item, "itemType");
    if (!type || (*type != kGWLimitTypeProgram && *type != kGWLimitTypeGroup)) continue;
    const plist::Value& enabled = item->get("enabled");
    if (!enabled.isBoolean() || !enabled.boolean()) continue;
    bool isProgram = *type == kGWLimitTypeProgram;
    const std::string* name = stringOf(*item, "name");
    const std::string* id = stringOf(*item, isProgram ? "bundleID" : "groupID");
    const std::string* path = stringOf(*item, "path");
    std::string label = name ? *name : (id ? *id : "?");
    if (isProgram && (!id || id->empty()) && path) id = path;
    if (!id || id->empty()) {
      parsed.problems.push_back("the item \"" + label + "\" has no identifier");
      continue;
    }
    ParsedLimits schedule = scheduleOf(*item);
    if (!schedule.problem.empty()) {
      parsed.problems.push_back("the item \"" + label + "\": " + schedule.problem);
      continue;
    }
    if (!schedule.limit) continue;  // enabled but nothing to enforce

    ProgramLimit limit;
    limit.id = *id;
    limit.itemKind = *type;
    limit.limit = std::move(*schedule.limit);
    limit.limit.name = label;
    if (const plist::Value* apps = item->find("appList")) {
      // The application records read as a white list's, nesting and wrong types handled there.
      auto settings =
          plist::Dictionary::make({{"gatewiseEnabled", plist::Value(true)}, {"whiteList", *apps}});
      limit.programs = parseAppAccess(plist::Value(settings), false).entries;
    }
    if (isProgram) {
      AppEntry own;
      if (path) own.path = *path;
      if (const std::string* bundleID = stringOf(*item, "bundleID")) own.bundleID = *bundleID;
      if (!own.path.empty() || !own.bundleID.empty()) limit.programs.push_back(std::move(own));
    }
    if (limit.programs.empty()) continue;  // covers nothing that could run
    for (ProgramLimit& earlier : parsed.limits) {
      if (earlier.id == limit.id) earlier.id.clear();  // a later duplicate wins
    }
    parsed.limits.push_back(std::move(limit));
  }
  std::erase_if(parsed.limits, [](const ProgramLimit& l) { return l.id.empty(); });
  return parsed;
}

bool programMatches(const std::vector<AppEntry>& entries, const std::string& path,
                    const ProgramBundle& bundle) {
  std::string program = withoutTrailingSlash(path);
  for (const AppEntry& entry : entries) {
    if (!entry.path.empty()) {
      std::string recorded = withoutTrailingSlash(entry.path);
      if (recorded == program || (!bundle.folder.empty() && recorded == bundle.folder)) {
        return true;
      }
    }
    if (!entry.bundleID.empty() && entry.bundleID == bundle.bundleID) return true;
  }
  return false;
}

const std::vector<ProgramLimit>& ProgramLimitCache::limitsFor(const std::string& userName) {
  static const std::vector<ProgramLimit> kNone;
  std::optional<std::string> path = GWManagedPreferencesFileForUser(userName, kTimeLimitsDomain);
  if (!path) return kNone;
  FileStamp stamp = stampOf(*path);
  auto it = entries_.find(userName);
  if (it != entries_.end() && it->second.stamp == stamp) return it->second.limits;
  Entry entry{stamp, {}};
  if (!stamp.absent) {
    std::string error;
    std::optional<std::string> bytes = readRegularFile(*path, kMaxLimitsFileSize, &error);
    plist::ReadResult read;
    if (bytes) read = plist::readPropertyList(std::string_view(*bytes));
    if (bytes && read) {
      ParsedProgramLimits parsed = parseProgramLimits(*read.value);
      for (const std::string& problem : parsed.problems) {
        GW_LOG(0, "*** Ignoring a program limit of %s: %s", userName.c_str(), problem.c_str());
      }
      entry.limits = std::move(parsed.limits);
    }  // an unreadable file is logged by the computer limit's reader
  }
  return (entries_[userName] = std::move(entry)).limits;
}

}  // namespace gw::daemon
