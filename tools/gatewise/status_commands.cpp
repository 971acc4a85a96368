// Status items:
//   gatewise status-items [--archive FILE]
//   gatewise status-items archive OUT [--xml] --item KIND,NAME,STATUS,SECONDS [--item ...]
//
// The first prints the daemon's items for the calling user (or those of a keyed-archive file),
// one block each, blocks separated by a blank line:
//   title: T / message: M (- for none) / kind: K (the status kind, - for none) / item: NAME /
//   remaining: S (whole seconds, truncated)
// Exit 1 when the daemon is not running; 2 when FILE is not an archive of status items.
// The second writes such an archive: KIND is computer, application, group or a full item kind;
// STATUS a status kind or its short name (warning, allowance-exceeded, curfew, not-allowed,
// could-not-quit; - for none); SECONDS until the item expires, counted from its creation now.
#include <gatewise/archive.h>
#include <gatewise/status.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>

#include "cli.h"
#include "out_file.h"

namespace gwcli {
namespace {

// Archives larger than this are not status items a daemon would send.
constexpr std::uintmax_t kMaxArchiveFileSize = 64u << 20;

long long wholeSeconds(double seconds) {
  if (std::isnan(seconds)) return 0;
  constexpr double kLimit = 9.0e18;
  return (long long)(std::trunc(std::clamp(seconds, -kLimit, kLimit)));
}

void printItems(const gw::plist::Array& items) {
  bool first = true;
  for (const gw::plist::Value& value : items) {
    auto item = value.ifObject<gw::GWStatusItem>();
    if (!item) continue;
    if (!first) std::printf("\n");
    first = false;
    std::printf("title: %s\nmessage: %s\nkind: %s\nitem: %s\nremaining: %lld\n",
                item->title().c_str(), item->message().value_or("-").c_str(),
                item->statusKind().value_or("-").c_str(), item->itemName().c_str(),
                wholeSeconds(item->timeRemaining()));
  }
}

// The items of a keyed-archive file; nullptr (with *error set) when it holds anything else.
gw::plist::ArrayRef itemsOfFile(const std::string& path, std::string* error) {
  std::error_code code;
  std::uintmax_t size = std::filesystem::file_size(path, code);
  if (code) {
    *error = path + ": " + code.message();
    return nullptr;
  }
  if (size > kMaxArchiveFileSize) {
    *error = path + ": too large for an archive of status items";
    return nullptr;
  }
  std::ifstream in(path, std::ios::binary);
  std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(in), {});
  gw::plist::Value root = gw::archive::unarchiveObjectWithData(bytes);
  if (!root.isArray()) {
    *error = path + ": not an archive of status items";
    return nullptr;
  }
  for (const gw::plist::Value& item : *root.array()) {
    if (!item.ifObject<gw::GWStatusItem>()) {
      *error = path + ": holds something other than status items";
      return nullptr;
    }
  }
  return root.array();
}

int show(const std::string& archivePath) {
  gw::plist::ArrayRef items;
  if (archivePath.empty()) {
    items = gw::GWGetStatusItems();
    if (!items) {
      std::fprintf(stderr, "gatewise: the daemon is not running\n");
      return kExitNo;
    }
  } else {
    std::string error;
    items = itemsOfFile(archivePath, &error);
    if (!items) return fail(error);
  }
  printItems(*items);
  return kExitYes;
}

std::optional<std::string> itemKindNamed(const std::string& name) {
  static const std::map<std::string, std::string_view, std::less<>> kShort = {
      {"computer", gw::kGWItemKindComputer},
      {"application", gw::kGWItemKindProgram},
      {"group", gw::kGWItemKindGroup}};
  auto found = kShort.find(name);
  return found != kShort.end() ? std::string(found->second) : name;
}

std::optional<std::string> statusKindNamed(const std::string& name) {
  static const std::map<std::string, std::string_view, std::less<>> kShort = {
      {"warning", gw::kGWStatusKindTerminationWarning},
      {"allowance-exceeded", gw::kGWStatusKindAllowanceExceeded},
      {"curfew", gw::kGWStatusKindCurfewUnallowed},
      {"not-allowed", gw::kGWStatusKindBlacklisted},
      {"could-not-quit", gw::kGWStatusKindCouldNotQuit}};
  if (name == "-") return std::nullopt;
  auto found = kShort.find(name);
  return found != kShort.end() ? std::string(found->second) : name;
}

// KIND,NAME,STATUS,SECONDS -> an item created now; nullptr when the text has another shape.
gw::GWStatusItemRef itemFromText(const std::string& text, gw::plist::Date now) {
  std::vector<std::string> parts;
  std::stringstream stream(text);
  for (std::string part; std::getline(stream, part, ',');) parts.push_back(part);
  if (parts.size() != 4 || parts[1].empty()) return nullptr;
  char* end = nullptr;
  double seconds = std::strtod(parts[3].c_str(), &end);
  if (parts[3].empty() || *end != '\0' || !std::isfinite(seconds)) return nullptr;
  auto item = gw::GWStatusItem::initWithName(
      parts[1], *itemKindNamed(parts[0]), gw::plist::Date{now.secondsSinceReferenceDate + seconds});
  item->setStatusKind(statusKindNamed(parts[2]));
  item->setItemCreationDate(now);
  return item;
}

int writeArchive(const std::string& out, const std::vector<std::string>& itemTexts, bool xml) {
  gw::plist::Date now = gw::plist::Date::now();
  auto items = gw::plist::Array::make();
  for (const std::string& text : itemTexts) {
    gw::GWStatusItemRef item = itemFromText(text, now);
    if (!item) return fail("expected KIND,NAME,STATUS,SECONDS, got " + text);
    item->setItemID("item-" + std::to_string(items->size() + 1));
    items->append(gw::plist::Value(item));
  }
  std::vector<std::uint8_t> bytes = gw::archive::archivedDataWithRootObject(
      gw::plist::Value(items), xml ? gw::plist::Format::XML : gw::plist::Format::Binary);
  if (bytes.empty()) return fail("could not archive the items");
  if (!writeOutFile(out,
                    std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()))) {
    return fail("cannot write " + out + ": " + std::strerror(errno));
  }
  return kExitYes;
}

void registerStatusCommands(CLI::App& app, Context& context) {
  auto* status = app.add_subcommand("status-items", "The daemon's status items for this user");
  auto archivePath = std::make_shared<std::string>();
  status->add_option("--archive", *archivePath, "Read the items from a keyed-archive file");
  auto* archive = status->add_subcommand("archive", "Write a keyed archive of status items");
  status->callback([&context, archivePath, archive] {
    if (archive->parsed()) return;  // the subcommand stored its own work
    context.run = [archivePath] { return show(*archivePath); };
  });

  struct ArchiveOptions {
    std::string out;
    std::vector<std::string> items;
    bool xml = false;
  };
  auto options = std::make_shared<ArchiveOptions>();
  archive->add_option("out", options->out, "The archive file to write")->required();
  archive->add_option("--item", options->items, "KIND,NAME,STATUS,SECONDS")->required();
  archive->add_flag("--xml", options->xml, "Write XML instead of binary");
  archive->callback([&context, options] {
    context.run = [options] { return writeArchive(options->out, options->items, options->xml); };
  });
}

}  // namespace

GW_CLI_COMMANDS(registerStatusCommands);

}  // namespace gwcli
