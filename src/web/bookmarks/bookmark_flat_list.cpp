// The flat list: the preference editor's form of a bookmark tree, one entry per leaf with the
// folder path that holds it ("/" for the top, "/Local/News/" two folders down).
#include <gatewise/bookmarks.h>
#include <gatewise/log.h>

#include "web/bookmarks/bookmark_keys.h"

namespace gw {

namespace keys = bookmark_keys;

namespace {

// A new mutable entry of the given values, in order, up to the first missing one: a leaf without a
// title gives an empty entry (the reverse conversion then logs and skips it).
plist::Value entry(
    std::initializer_list<std::pair<const char*, std::optional<std::string>>> values) {
  auto dictionary = plist::Dictionary::make();
  for (const auto& [key, value] : values) {
    if (!value) break;
    dictionary->set(key, *value);
  }
  return dictionary;
}

}  // namespace

plist::ArrayRef GWLumewayBookmarkFolder::flatArray() const {
  return flatArrayWithArray(bookmarks(), "/");
}

plist::ArrayRef GWLumewayBookmarkFolder::flatArrayWithArray(
    const std::vector<GWLumewayBookmarkRef>& nodes, std::string_view path) {
  auto flat = plist::Array::make();
  for (const GWLumewayBookmarkRef& node : nodes) {
    if (node->isFolder()) {
      std::string below = std::string(path) + node->title().value_or("(null)") + "/";
      auto& folder = static_cast<const GWLumewayBookmarkFolder&>(*node);
      plist::ArrayRef inner = flatArrayWithArray(folder.bookmarks(), below);
      for (const plist::Value& v : *inner) flat->append(v);
    } else {
      flat->append(entry({{keys::kPageTitle, node->title()},
                          {keys::kAddress, node->url()},
                          {keys::kBookmarkPath, std::string(path)}}));
    }
  }
  return flat;
}

plist::ArrayRef GWLumewayBookmarkFolder::flatArrayOLD() const {
  auto flat = plist::Array::make();
  for (const GWLumewayBookmarkRef& leaf : allBookmarks()) {
    try {
      flat->append(entry({{keys::kPageTitle, leaf->title()}, {keys::kAddress, leaf->url()}}));
    } catch (const std::exception& e) {
      GW_LOG_CAUGHT(e);
    }
  }
  return flat;
}

GWLumewayBookmarkFolderRef GWLumewayBookmarkFolder::bookmarkFolderWithFlatArray(
    const plist::ArrayRef& flatArray) {
  GWLumewayBookmarkFolderRef folder = initWithTitle(keys::kFlatListFolderTitle);
  if (!flatArray) return folder;
  for (const plist::Value& item : *flatArray) {
    const plist::Dictionary* fields = item.ifDictionary();
    const std::string* address = fields ? fields->get(keys::kAddress).ifString() : nullptr;
    if (!address) {
      GW_LOG(0, "*** Address was nil");
      continue;
    }
    const std::string* title = fields->get(keys::kPageTitle).ifString();
    GWLumewayBookmarkRef leaf =
        GWLumewayBookmark::initWithTitle(title ? *title : "Unknown", *address);
    const std::string* path = fields->get(keys::kBookmarkPath).ifString();
    if (path && !path->empty()) {
      folder->addBookmark(leaf, std::string_view(*path));
    } else {
      folder->addBookmark(leaf);
    }
  }
  return folder;
}

plist::DictionaryRef GWLumewayCreateBookmarksFromFlatArray(const plist::ArrayRef& flatArray) {
  return returningOnException(__func__, __LINE__, plist::DictionaryRef(), [&] {
    return GWLumewayBookmarkFolder::bookmarkFolderWithFlatArray(flatArray)
        ->dictionaryRepresentation();
  });
}

}  // namespace gw
