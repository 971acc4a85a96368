// gatewise apps list|record|nested, bundle-info, widgets list|id: application records, discovery
// and widgets.
#include <gatewise/apps.h>
#include <gatewise/bundle_info.h>
#include <gatewise/widgets.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"

namespace {

std::string text(const gw::plist::Value& value) {
  const std::string* string = value.ifString();
  return string ? *string : std::string();
}

std::string hex(const gw::plist::Data& bytes) {
  std::string out;
  char digits[3];
  for (std::uint8_t byte : bytes) {
    std::snprintf(digits, sizeof digits, "%02x", byte);
    out += digits;
  }
  return out;
}

// The one line for a path the user named that is not there.
bool exists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

int listApps() {
  gw::plist::ArrayRef applications = GWCopyInstalledApplications();
  std::vector<gw::plist::DictionaryRef> entries;
  for (const gw::plist::Value& value : *applications)
    if (value.isDictionary()) entries.push_back(value.dictionary());
  std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
    return text(a->get("displayName")) < text(b->get("displayName"));
  });
  for (const auto& entry : entries)
    std::printf("%s\t%s\t%s\n", text(entry->get("bundleID")).c_str(),
                text(entry->get("displayName")).c_str(), text(entry->get("path")).c_str());
  return gwcli::kExitYes;
}

int recordApp(const std::string& path, bool subApps) {
  if (!exists(path)) return gwcli::fail("no program at " + path);
  gw::GWAppRef record = gw::GWApp::appWithPath(path, subApps);
  if (!record) return gwcli::fail("cannot make a record of " + path);
  std::optional<std::string> xml =
      gw::plist::writePropertyList(record->plistRepresentation(), gw::plist::Format::XML);
  if (!xml) return gwcli::fail("cannot write the record of " + path);
  std::fwrite(xml->data(), 1, xml->size(), stdout);
  return gwcli::kExitYes;
}

int nestedApps(const std::string& path) {
  if (!exists(path)) return gwcli::fail("no program at " + path);
  std::optional<std::vector<std::string>> paths = GWGetAppPathsAtPath(path);
  if (!paths) return gwcli::fail(path + " is not a package");
  for (const std::string& nested : *paths) std::printf("%s\n", nested.c_str());
  return gwcli::kExitYes;
}

int bundleInfo(const std::string& path) {
  if (!exists(path)) return gwcli::fail("no program at " + path);
  gw::plist::DictionaryRef info = GWCopyInfoDictFudgingIfNecessary(path, std::nullopt);
  std::printf("name: %s\nid: %s\ninfo-id: %s\n",
              GWCopyBundleNameFudgingIfNecessary(path, std::nullopt).value_or("").c_str(),
              GWCopyBundleIDFudgingIfNecessary(path, std::nullopt).value_or("").c_str(),
              info ? text(info->get("CFBundleIdentifier")).c_str() : "");
  return gwcli::kExitYes;
}

int listWidgets() {
  for (const gw::GWWidgetRef& widget : gw::GWWidget::installedWidgets())
    std::printf("%s\t%s\t%s\n", hex(widget->widgetID().value_or(gw::plist::Data())).c_str(),
                widget->displayName().value_or("").c_str(), widget->path().value_or("").c_str());
  return gwcli::kExitYes;
}

int widgetID(const std::string& path) {
  if (!exists(path)) return gwcli::fail("no widget at " + path);
  std::optional<gw::plist::Data> id = GWGetWidgetIDForPath(path);
  if (!id) return gwcli::fail("cannot compute the identifier of " + path);
  std::printf("%s\n", hex(*id).c_str());
  return gwcli::kExitYes;
}

void registerAppsCommands(CLI::App& app, gwcli::Context& context) {
  CLI::App* apps = app.add_subcommand("apps", "Installed programs and application records");
  apps->require_subcommand(1);
  apps->add_subcommand("list", "Installed programs: BUNDLEID, NAME and PATH, by name")
      ->callback([&context] { context.run = listApps; });

  auto recordPath = std::make_shared<std::string>();
  auto withSubApps = std::make_shared<bool>(false);
  CLI::App* record = apps->add_subcommand("record", "A program's record as an XML property list");
  record->add_option("PATH", *recordPath, "Program file or bundle folder")->required();
  record->add_flag("--sub-apps", *withSubApps, "Add the records of its nested programs");
  record->callback([&context, recordPath, withSubApps] {
    context.run = [=] { return recordApp(*recordPath, *withSubApps); };
  });

  auto nestedPath = std::make_shared<std::string>();
  CLI::App* nested = apps->add_subcommand("nested", "The executables nested in a bundle");
  nested->add_option("PATH", *nestedPath, "Bundle folder")->required();
  nested->callback(
      [&context, nestedPath] { context.run = [=] { return nestedApps(*nestedPath); }; });

  auto infoPath = std::make_shared<std::string>();
  CLI::App* info =
      app.add_subcommand("bundle-info", "A program's name and identifiers, substituted if missing");
  info->add_option("PATH", *infoPath, "Program file or bundle folder")->required();
  info->callback([&context, infoPath] { context.run = [=] { return bundleInfo(*infoPath); }; });

  CLI::App* widgets = app.add_subcommand("widgets", "Installed widgets");
  widgets->require_subcommand(1);
  widgets->add_subcommand("list", "Installed widgets: ID (hex), NAME and PATH, by name")
      ->callback([&context] { context.run = listWidgets; });
  auto idPath = std::make_shared<std::string>();
  CLI::App* id = widgets->add_subcommand("id", "A widget bundle's identifier (hex)");
  id->add_option("PATH", *idPath, "Widget bundle")->required();
  id->callback([&context, idPath] { context.run = [=] { return widgetID(*idPath); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerAppsCommands);
