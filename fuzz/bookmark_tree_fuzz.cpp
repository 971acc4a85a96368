// Reads arbitrary bytes as a property list and drives the bookmark model with it: a dictionary is
// a bookmark file's folder node, an array is the editor's flat list. Every view (leaves, flat
// lists, description), a folder path edit and the keyed-coding round trip must end without a
// crash, an escaping exception or unbounded recursion, whatever the nesting or sharing of nodes.
#include <gatewise/archive.h>
#include <gatewise/bookmarks.h>
#include <gatewise/exception.h>
#include <gatewise/log.h>
#include <gatewise/plist.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void useFolder(const gw::GWLumewayBookmarkFolderRef& folder) {
  (void)folder->description();
  std::vector<gw::GWLumewayBookmarkRef> leaves = folder->allBookmarks();
  for (const gw::GWLumewayBookmarkRef& leaf : leaves) (void)leaf->description();
  (void)folder->flatArrayOLD();
  gw::plist::ArrayRef flat = folder->flatArray();
  // The flat list builds a tree again: one leaf for every entry that has an address.
  gw::GWLumewayBookmarkFolderRef rebuilt =
      gw::GWLumewayBookmarkFolder::bookmarkFolderWithFlatArray(flat);
  if (rebuilt->allBookmarks().size() > leaves.size()) std::abort();

  // A path edit: below the first child folder's title (or a fresh path), then found and removed.
  std::string path = "/Fuzz/";
  if (!folder->bookmarks().empty())
    path = "/" + folder->bookmarks().front()->title().value_or("") + "/x/";
  // A folder node whose "Children" is not an array raises when edited.
  gw::GWLumewayBookmarkRef added =
      gw::GWLumewayBookmark::initWithTitle("added", "http://a.example/");
  try {
    folder->addBookmark(added, std::string_view(path));
    gw::GWLumewayBookmarkFolderRef holder = folder->folderForBookmark(*added);
    if (!holder || holder->indexOfBookmark(*added) < 0) std::abort();
    holder->removeBookmark(added);
  } catch (const gw::GWException&) {
  }
  (void)folder->indexOfBookmarkFolderWithTitle("Fuzz");
  (void)gw::GWLumewayCreateBookmarksFromFlatArray(folder->flatArray());

  // Keyed coding: what archives decodes into a folder of as many children.
  std::vector<std::uint8_t> archived = gw::archive::archivedDataWithRootObject(folder);
  if (archived.empty()) std::abort();
  auto decoded =
      gw::archive::unarchiveObjectWithData(archived).ifObject<gw::GWLumewayBookmarkFolder>();
  if (!decoded || decoded->count() != folder->count()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gGWFrameworkLoggingLevel = -2;  // nothing is logged: the fuzzer's output stays readable
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  gw::plist::ReadResult read = gw::plist::readPropertyList(
      std::span<const std::uint8_t>(data, size),
      {.mutability = gw::plist::Mutability::MutableContainers, .xmlUIDDictionaries = false});
  if (!read) return 0;
  if (read.value->isDictionary()) {
    useFolder(gw::GWLumewayBookmarkFolder::initWithDictionary(read.value->dictionary()));
  } else if (read.value->isArray()) {
    useFolder(gw::GWLumewayBookmarkFolder::bookmarkFolderWithFlatArray(read.value->array()));
  }
  return 0;
}
