// Browser bookmarks from a shell:
//   gatewise bookmarks flat FILE [--all]
//                                       the flat list of FILE's bookmarks bar (XML property list);
//                                       --all: of the whole file, every top-level folder included
//   gatewise bookmarks from-flat FILE   the bookmark folder made from a flat list (XML)
//   gatewise bookmarks add FILE --path /A/B/ --title T --url U
//                                       adds a bookmark below the bar's folder path, in place
//   gatewise bookmarks write USER       the root-only writer of a managed user's bookmark file
// Input that cannot be read or used exits 2 with one line; `write` exits 1 when the user has no
// managed bookmarks.
#include <gatewise/bookmarks.h>
#include <gatewise/core.h>
#include <gatewise/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "cli.h"
#include "out_file.h"

namespace gwcli {
namespace {

// Bookmark files of real browsers stay far below this; anything larger is refused unread.
constexpr off_t kMaxInputSize = off_t(gw::GWLumewayBookmarkManager::kMaxBookmarkFileSize);
// Deeper folder paths are refused: nobody browses folders nested this far.
constexpr int kMaxPathComponents = 64;

struct BookmarkOptions {
  std::string file;
  std::string path = "/";
  std::string title;
  std::string url;
  std::string user;
  bool all = false;
};

int printXML(const gw::plist::Value& value) {
  std::string error;
  std::optional<std::string> xml =
      gw::plist::writePropertyList(value, gw::plist::Format::XML, &error);
  if (!xml) return fail("cannot write the result: " + error);
  std::fwrite(xml->data(), 1, xml->size(), stdout);
  return std::fflush(stdout) == 0 ? kExitYes : fail("cannot write standard output");
}

std::optional<std::string> checkInputFile(const std::string& file) {
  struct stat st {};
  if (::stat(file.c_str(), &st) != 0) return "cannot read " + file;
  if (!S_ISREG(st.st_mode)) return file + " is not a regular file";
  if (st.st_size > kMaxInputSize) return file + " is too large";
  return std::nullopt;
}

gw::GWLumewayBookmarkManagerRef loadedManager(const std::string& file, std::string* error) {
  if (auto bad = checkInputFile(file)) {
    *error = *bad;
    return nullptr;
  }
  auto manager = gw::GWLumewayBookmarkManager::initWithPath(file);
  if (!manager->loadData()) {
    *error = "not a bookmark file: " + file;
    return nullptr;
  }
  return manager;
}

int flat(const BookmarkOptions& options) {
  std::string error;
  auto manager = loadedManager(options.file, &error);
  if (!manager) return fail(error);
  gw::GWLumewayBookmarkFolderRef folder =
      options.all
          ? gw::GWLumewayBookmarkFolder::bookmarkWithDictionary(manager->dictionaryRepresentation())
          : manager->bookmarksBarBookmarks();
  return printXML(gw::plist::Value(folder->flatArray()));
}

int fromFlat(const BookmarkOptions& options) {
  if (auto bad = checkInputFile(options.file)) return fail(*bad);
  gw::plist::ReadResult read = gw::plist::readPropertyListFile(options.file);
  if (!read) return fail("cannot read " + options.file + ": " + read.error);
  if (!read.value->isArray()) return fail(options.file + " is not a flat list (an array)");
  gw::plist::DictionaryRef folder = gw::GWLumewayCreateBookmarksFromFlatArray(read.value->array());
  if (!folder) return fail("cannot make bookmarks from " + options.file);
  return printXML(gw::plist::Value(folder));
}

int countComponents(const std::string& path) {
  int count = 0;
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (path[i] != '/' && (i == 0 || path[i - 1] == '/')) ++count;
  }
  return count;
}

// The bookmarks bar of the file, added at the end of the root when the file has none.
gw::GWLumewayBookmarkFolderRef bookmarksBar(gw::GWLumewayBookmarkManager& manager) {
  if (gw::plist::DictionaryRef bar = manager._bookmarksBarDictionary())
    return gw::GWLumewayBookmarkFolder::bookmarkWithDictionary(bar);
  auto root =
      gw::GWLumewayBookmarkFolder::bookmarkWithDictionary(manager.dictionaryRepresentation());
  auto bar = gw::GWLumewayBookmarkFolder::initWithTitle("BookmarksBar");
  root->addBookmark(bar);
  return bar;
}

int add(const BookmarkOptions& options) {
  if (options.url.empty()) return fail("the address is empty");
  if (countComponents(options.path) > kMaxPathComponents)
    return fail("the folder path is too deep");
  std::string error;
  auto manager = loadedManager(options.file, &error);
  if (!manager) return fail(error);
  try {
    bookmarksBar(*manager)->addBookmark(
        gw::GWLumewayBookmark::initWithTitle(options.title, options.url),
        std::string_view(options.path));
  } catch (const std::exception& e) {
    return fail("cannot edit " + options.file + ": " + e.what());
  }
  // Kept in the encoding and mode the file had.
  struct stat st {};
  mode_t mode = ::stat(options.file.c_str(), &st) == 0 ? st.st_mode & 07777 : 0600;
  std::string head(8, '\0');
  if (FILE* f = std::fopen(options.file.c_str(), "rb")) {
    head.resize(std::fread(head.data(), 1, head.size(), f));
    std::fclose(f);
  }
  auto format = head == "bplist00" ? gw::plist::Format::Binary : gw::plist::Format::XML;
  std::optional<std::string> bytes = gw::plist::writePropertyList(
      gw::plist::Value(manager->dictionaryRepresentation()), format, &error);
  if (!bytes) return fail("cannot write " + options.file + ": " + error);
  if (!writeOutFile(options.file, *bytes, mode)) return fail("cannot write " + options.file);
  return kExitYes;
}

int write(const BookmarkOptions& options) {
  if (::geteuid() != 0) return fail("bookmarks write must be run as root");
  if (UIDForShortName(options.user) == 0xFFFFFFFF) return fail("unknown user: " + options.user);
  using Outcome = gw::GWBookmarkWriteOutcome;
  switch (gw::writeUserBookmarksToBookmarksFile(options.user)) {
    case Outcome::Written:
      std::puts("written");
      return kExitYes;
    case Outcome::NoPreferences:
    case Outcome::NoBookmarks:
      std::puts("no managed bookmarks");
      return kExitNo;
    case Outcome::NotRoot:
      return fail("bookmarks write must be run as root");
    case Outcome::NoHomeFolder:
      return fail("no home folder for " + options.user);
    case Outcome::WriteFailed:
    case Outcome::PermissionsFailed:
    case Outcome::Failed:
      break;
  }
  return fail("cannot write the bookmarks of " + options.user);
}

void registerBookmarkCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<BookmarkOptions>();
  CLI::App* bookmarks = app.add_subcommand("bookmarks", "Browser bookmarks of managed users");
  bookmarks->require_subcommand(1);

  CLI::App* flatCommand = bookmarks->add_subcommand("flat", "The flat list of a bookmarks bar");
  flatCommand->add_option("FILE", options->file, "Bookmark file")->required();
  flatCommand->add_flag("--all", options->all, "The whole file instead of the bookmarks bar");
  flatCommand->callback(
      [&context, options] { context.run = [options] { return flat(*options); }; });

  CLI::App* fromFlatCommand =
      bookmarks->add_subcommand("from-flat", "The bookmark folder made from a flat list");
  fromFlatCommand->add_option("FILE", options->file, "Flat list (property list array)")->required();
  fromFlatCommand->callback(
      [&context, options] { context.run = [options] { return fromFlat(*options); }; });

  CLI::App* addCommand = bookmarks->add_subcommand("add", "Add a bookmark to a bookmark file");
  addCommand->add_option("FILE", options->file, "Bookmark file, edited in place")->required();
  addCommand->add_option("--path", options->path, "Folder path below the bar, like /A/B/");
  addCommand->add_option("--title", options->title, "Title")->required();
  addCommand->add_option("--url", options->url, "Address")->required();
  addCommand->callback([&context, options] { context.run = [options] { return add(*options); }; });

  CLI::App* writeCommand =
      bookmarks->add_subcommand("write", "Write a managed user's bookmark file (root)");
  writeCommand->add_option("USER", options->user, "Short name of the managed user")->required();
  writeCommand->callback(
      [&context, options] { context.run = [options] { return write(*options); }; });
}

}  // namespace

GW_CLI_COMMANDS(registerBookmarkCommands);

}  // namespace gwcli
