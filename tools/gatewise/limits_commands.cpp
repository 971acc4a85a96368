// A managed user's time limits:
//   gatewise limits list USER | describe USER ID | show USER [ID] |
//   set USER ITEM [--enable|--disable] [--weekday-allowance SECONDS|none]
//       [--weekend-allowance SECONDS|none] [--curfews FILE]
// ITEM is `computer`, `games` or an item's id. `set` is the one writer of the time-limits file: it
// edits it as the preference editor would, then tells the system and the daemon.
#include <gatewise/core.h>
#include <gatewise/ipc.h>
#include <gatewise/notifications.h>
#include <gatewise/plist.h>
#include <gatewise/schedule/limit_item.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "cli.h"

namespace gwcli {
namespace {

using gw::GWLimitItem;
using gw::GWLimitItemRef;
namespace plist = gw::plist;

struct LimitsOptions {
  std::string user;
  std::string id;
  bool enable = false;
  bool disable = false;
  std::string weekdayAllowance;
  std::string weekendAllowance;
  std::string curfewsFile;
};

bool validUser(const std::string& user) {
  return !user.empty() && user.find('/') == std::string::npos && user != "." && user != "..";
}

const char* typeName(const GWLimitItem& item) {
  if (item.isComputer()) return "computer";
  if (item.isProgram()) return "program";
  if (item.isGroup()) return "group";
  if (item.isWebSite()) return "website";
  return "unknown";
}

void printLine(const GWLimitItem& item) {
  std::printf("%s %s %d %s\n", item.uniqueID().value_or("-").c_str(), typeName(item),
              item.enabled() ? 1 : 0, item.name().c_str());
}

int list(const LimitsOptions& options) {
  if (!validUser(options.user)) return fail("invalid user name: " + options.user);
  for (const GWLimitItemRef& item : GWLimitItem::allLimitsForUser(options.user)) printLine(*item);
  return kExitYes;
}

int describe(const LimitsOptions& options) {
  if (!validUser(options.user)) return fail("invalid user name: " + options.user);
  GWLimitItemRef item = GWLimitItem::limitWithID(options.id, options.user);
  if (!item) return fail("no limit item " + options.id + " for " + options.user);
  std::printf("%s\n", item->briefDescription().c_str());
  return kExitYes;
}

int printXML(const plist::Value& value) {
  std::string error;
  std::optional<std::string> xml = plist::writePropertyList(value, plist::Format::XML, &error);
  if (!xml) return fail(error);
  std::fwrite(xml->data(), 1, xml->size(), stdout);
  return kExitYes;
}

int show(const LimitsOptions& options) {
  if (!validUser(options.user)) return fail("invalid user name: " + options.user);
  if (!options.id.empty()) {
    GWLimitItemRef item = GWLimitItem::limitWithID(options.id, options.user);
    if (!item) return fail("no limit item " + options.id + " for " + options.user);
    return printXML(item->plistRepresentation());
  }
  auto all = plist::Array::make();
  for (const GWLimitItemRef& item : GWLimitItem::allLimitsForUser(options.user)) {
    all->append(item->plistRepresentation());
  }
  return printXML(all);
}

// An allowance option: absent, "none" (remove it) or seconds in 0..INT32_MAX.
struct AllowanceEdit {
  bool given = false;
  bool remove = false;
  std::int32_t seconds = 0;
};

bool parseAllowance(const std::string& text, AllowanceEdit* edit) {
  if (text.empty()) return true;
  edit->given = true;
  if (text == "none") {
    edit->remove = true;
    return true;
  }
  if (text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  long long seconds = std::stoll(text);
  if (seconds > INT32_MAX) return false;
  edit->seconds = std::int32_t(seconds);
  return true;
}

void applyAllowance(GWLimitItem& item, const AllowanceEdit& edit, bool weekend) {
  if (!edit.given) return;
  if (edit.remove) {
    weekend ? item.removeWeekendAllowance() : item.removeWeekdayAllowance();
  } else {
    weekend ? item.setWeekendAllowanceSeconds(edit.seconds)
            : item.setWeekdayAllowanceSeconds(edit.seconds);
  }
}

// Whether the stored entry is the item named by `which` (computer, games or an id). Entries that
// cannot be read are nobody's.
bool matches(const plist::Value& stored, const std::string& which) {
  try {
    GWLimitItemRef item = GWLimitItem::limitItemWithDictionary(stored);
    if (!item) return false;
    if (which == "computer") return item->isComputer();
    if (which == "games") return item->isGamesGroup();
    return item->uniqueID() == which;
  } catch (const std::exception&) {
    return false;
  }
}

bool makeFolders(const std::string& path) {
  // Creates each missing component; the parents of a user's folder belong to the system.
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    std::string part = path.substr(0, slash);
    if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

int set(const LimitsOptions& options) {
  if (!validUser(options.user)) return fail("invalid user name: " + options.user);
  if (options.enable && options.disable) return fail("--enable and --disable exclude each other");
  AllowanceEdit weekday, weekend;
  if (!parseAllowance(options.weekdayAllowance, &weekday)) {
    return fail("invalid weekday allowance: " + options.weekdayAllowance);
  }
  if (!parseAllowance(options.weekendAllowance, &weekend)) {
    return fail("invalid weekend allowance: " + options.weekendAllowance);
  }
  gw::GWCurfewsRef curfews;
  if (!options.curfewsFile.empty()) {
    plist::ReadResult read = plist::readPropertyListFile(options.curfewsFile);
    if (!read) return fail(options.curfewsFile + ": " + read.error);
    curfews = gw::GWCurfews::curfewsWithDictionary(*read.value);
    if (!curfews) return fail(options.curfewsFile + ": not a curfews dictionary");
  }

  std::optional<std::string> folder = GWManagedPreferencesFolderForUser(options.user);
  std::optional<std::string> path =
      GWManagedPreferencesFileForUser(options.user, gw::kGWTimeLimitsDomain);
  if (!folder || !path) return fail("invalid user name: " + options.user);
  plist::DictionaryRef preference = plist::Dictionary::make();
  struct stat st;
  if (::lstat(path->c_str(), &st) == 0) {
    // An existing file that cannot be read is left alone rather than replaced.
    plist::ReadResult read =
        plist::readPropertyListFile(*path, {.mutability = plist::Mutability::MutableContainers});
    if (!read) return fail(*path + ": " + read.error);
    if (!read.value->isDictionary()) return fail(*path + ": not a dictionary");
    preference = read.value->dictionary();
  }
  plist::ArrayRef items = preference->get(gw::kGWLimitsListKey).isArray()
                              ? preference->get(gw::kGWLimitsListKey).array()
                              : plist::Array::make();

  std::optional<std::size_t> index;
  for (std::size_t i = items->size(); i-- > 0;) {
    if (matches((*items)[i], options.id)) {
      index = i;
      break;
    }
  }
  GWLimitItemRef item;
  if (index) {
    item = GWLimitItem::limitItemWithDictionary((*items)[*index]);
  } else if (options.id == "computer") {
    item = GWLimitItem::computerLimit();
  } else if (options.id == "games") {
    item = GWLimitItem::gamesGroup();
  } else {
    return fail("no limit item " + options.id + " for " + options.user);
  }

  if (options.enable || options.disable) item->setEnabled(options.enable);
  applyAllowance(*item, weekday, false);
  applyAllowance(*item, weekend, true);
  if (curfews) item->setCurfews(curfews);

  plist::DictionaryRef stored = item->plistRepresentation();
  if (index) {
    items->set(*index, stored);
  } else {
    items->append(stored);
  }
  preference->set(std::string(gw::kGWLimitsListKey), items);
  if (!makeFolders(*folder)) return fail("cannot create " + *folder + ": " + std::strerror(errno));
  std::string error;
  if (!plist::writePropertyListFile(*path, preference, plist::Format::XML, &error)) {
    return fail(error);
  }

  // Whoever caches managed settings drops them; the daemon rereads the user's.
  gw::notify::postNotification(kGWManagementStatusChangedNotification);
  std::uint32_t uid = UIDForShortName(options.user);
  if (uid != 0xFFFFFFFF) GWUtilities::fcdReadSettingsFor(uid_t(uid));
  printLine(*item);
  return kExitYes;
}

void registerLimitsCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<LimitsOptions>();
  CLI::App* limits = app.add_subcommand("limits", "A managed user's time limits");
  limits->require_subcommand(1);
  auto user = [options](CLI::App* command) {
    command->add_option("USER", options->user, "Short name of the managed user")->required();
  };

  CLI::App* listCommand = limits->add_subcommand("list", "One line per item: ID TYPE ENABLED NAME");
  user(listCommand);
  listCommand->callback(
      [&context, options] { context.run = [options] { return list(*options); }; });

  CLI::App* describeCommand = limits->add_subcommand("describe", "The item's brief description");
  user(describeCommand);
  describeCommand->add_option("ID", options->id, "The item's id")->required();
  describeCommand->callback(
      [&context, options] { context.run = [options] { return describe(*options); }; });

  CLI::App* showCommand = limits->add_subcommand("show", "Stored form of one item or all, as XML");
  user(showCommand);
  showCommand->add_option("ID", options->id, "The item's id (default: all items)");
  showCommand->callback(
      [&context, options] { context.run = [options] { return show(*options); }; });

  CLI::App* setCommand = limits->add_subcommand("set", "Edit an item of the time-limits file");
  user(setCommand);
  setCommand->add_option("ITEM", options->id, "computer, games or an item's id")->required();
  setCommand->add_flag("--enable", options->enable, "Enable the item");
  setCommand->add_flag("--disable", options->disable, "Disable the item");
  setCommand->add_option("--weekday-allowance", options->weekdayAllowance,
                         "Seconds a day on work days, or none");
  setCommand->add_option("--weekend-allowance", options->weekendAllowance,
                         "Seconds a day at the weekend, or none");
  setCommand->add_option("--curfews", options->curfewsFile, "Curfews property list");
  setCommand->callback([&context, options] { context.run = [options] { return set(*options); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerLimitsCommands);

}  // namespace gwcli
