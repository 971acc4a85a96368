// A user's forced (managed) preferences, key by key:
//   gatewise forced get USER DOMAIN KEY      the value as an XML property list; exit 1 if absent
//   gatewise forced set USER DOMAIN KEY VALUE [--string]
//   gatewise forced remove USER DOMAIN KEY
//   gatewise forced show USER DOMAIN         the domain as an XML property list; exit 1 if absent
// VALUE is read as a property-list scalar: true/false, an integer, a real, a date
// "YYYY-MM-DDTHH:MM:SSZ", else a string (--string keeps it a string); "@FILE" is a property-list
// file. An existing domain file that cannot be read is never replaced.
#include <gatewise/core.h>
#include <gatewise/plist.h>
#include <gatewise/qrm_helper.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "cli.h"

namespace gwcli {
namespace {

namespace plist = gw::plist;
using gw::GWManagedPreferencesManager;
using gw::GWQRMHelper;

struct ForcedOptions {
  std::string user;
  std::string domain;
  std::string key;
  std::string value;
  bool asString = false;
};

bool safeName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos && name != "." && name != "..";
}

std::optional<plist::Value> parseDate(const std::string& text) {
  int y, mo, d, h, mi, s;
  char end = 0;
  if (text.size() != 20 ||
      std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c", &y, &mo, &d, &h, &mi, &s, &end) != 7 ||
      end != 'Z' || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60) {
    return std::nullopt;
  }
  std::tm tm{};
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  tm.tm_hour = h;
  tm.tm_min = mi;
  tm.tm_sec = s;
  return plist::Value(plist::Date::fromUnixTime(double(::timegm(&tm))));
}

// VALUE as the scalar it spells, or the property list of @FILE.
std::optional<plist::Value> parseValue(const ForcedOptions& options, std::string* error) {
  const std::string& text = options.value;
  if (options.asString) return plist::Value(text);
  if (text.starts_with("@")) {
    plist::ReadResult read = plist::readPropertyListFile(text.substr(1));
    if (!read) *error = "cannot read " + text.substr(1) + ": " + read.error;
    return read.value;
  }
  if (text == "true" || text == "false") return plist::Value(text == "true");
  if (!text.empty() && text.find_first_not_of("+-0123456789") == std::string::npos) {
    errno = 0;
    char* end = nullptr;
    long long n = std::strtoll(text.c_str(), &end, 10);
    bool whole = end != text.c_str() && *end == '\0';
    if (whole && errno == ERANGE) {
      *error = "integer out of range: " + text;
      return std::nullopt;
    }
    if (whole) return plist::Value(std::int64_t(n));
  }
  if (!text.empty() && text.find_first_not_of("+-0123456789.eE") == std::string::npos) {
    char* end = nullptr;
    double r = std::strtod(text.c_str(), &end);
    if (*end == '\0' && std::isfinite(r)) return plist::Value(r);
  }
  if (std::optional<plist::Value> date = parseDate(text)) return date;
  return plist::Value(text);
}

int printXML(const plist::Value& value) {
  std::string error;
  std::optional<std::string> xml = plist::writePropertyList(value, plist::Format::XML, &error);
  if (!xml) return fail(error);
  std::fwrite(xml->data(), 1, xml->size(), stdout);
  return kExitYes;
}

// The user's manager, with the domain checked and its current file readable (or absent).
std::shared_ptr<GWManagedPreferencesManager> managerFor(const ForcedOptions& options,
                                                        plist::DictionaryRef* current,
                                                        int* status) {
  *status = kExitYes;
  if (!safeName(options.user)) {
    *status = fail("invalid user name: " + options.user);
    return nullptr;
  }
  if (!safeName(options.domain)) {
    *status = fail("invalid domain: " + options.domain);
    return nullptr;
  }
  auto manager = GWManagedPreferencesManager::managerForUser(options.user);
  if (!manager) {
    *status = fail("invalid user name: " + options.user);
    return nullptr;
  }
  *current = manager->dictionaryForDomain(options.domain);
  if (!manager->lastError().empty()) {
    *status = fail(manager->lastError());
    return nullptr;
  }
  return manager;
}

int run(const std::string& command, const ForcedOptions& options) {
  plist::DictionaryRef current;
  int status = 0;
  auto manager = managerFor(options, &current, &status);
  if (!manager) return status;
  auto helper = GWQRMHelper::qrmHelperForManager(manager);
  if (command == "show") return current ? printXML(current) : kExitNo;
  if (command == "get") {
    std::optional<plist::Value> value =
        helper->forcedPrefsObjectForKey(options.key, options.domain);
    return value ? printXML(*value) : kExitNo;
  }
  if (command == "set") {
    std::string error;
    std::optional<plist::Value> value = parseValue(options, &error);
    if (!value) return fail(error);
    if (!plist::isValidPropertyList(*value, plist::Format::XML)) {
      return fail("not a property-list value: " + options.value);
    }
    helper->setForcedPrefsObject(*value, options.key, options.domain);
  } else {
    helper->removeForcedPrefsObjectForKey(options.key, options.domain);
  }
  return manager->lastError().empty() ? kExitYes : fail(manager->lastError());
}

void registerForcedCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<ForcedOptions>();
  CLI::App* forced = app.add_subcommand("forced", "A user's forced preferences, key by key");
  forced->require_subcommand(1);
  struct Subcommand {
    const char* name;
    const char* help;
    bool key, value;
  };
  for (const Subcommand& shape :
       {Subcommand{"get", "One key's value as an XML property list", true, false},
        Subcommand{"set", "Set one key", true, true},
        Subcommand{"remove", "Remove one key", true, false},
        Subcommand{"show", "The whole domain as an XML property list", false, false}}) {
    CLI::App* command = forced->add_subcommand(shape.name, shape.help);
    command->add_option("USER", options->user, "Short name of the managed user")->required();
    command->add_option("DOMAIN", options->domain, "Preference domain")->required();
    if (shape.key) command->add_option("KEY", options->key, "Key in the domain")->required();
    if (shape.value) {
      command->add_option("VALUE", options->value, "A scalar, or @FILE for a property list")
          ->required();
      command->add_flag("--string", options->asString, "Take VALUE as a string");
    }
    std::string name = shape.name;
    command->callback([&context, options, name] {
      context.run = [options, name] { return run(name, *options); };
    });
  }
}

GW_CLI_COMMANDS(registerForcedCommands);

}  // namespace
}  // namespace gwcli
