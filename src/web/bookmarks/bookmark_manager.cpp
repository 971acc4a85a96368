// GWLumewayBookmarkManager: one bookmark file read into mutable containers, so that the bookmark
// objects it hands out can edit the tree in place. Every key of the file survives untouched.
#include <gatewise/bookmarks.h>
#include <gatewise/log.h>

#include "platform/fs/file_io.h"
#include "web/bookmarks/bookmark_keys.h"

namespace gw {

namespace keys = bookmark_keys;

GWLumewayBookmarkManagerRef GWLumewayBookmarkManager::initWithPath(std::string path) {
  return GWLumewayBookmarkManagerRef(new GWLumewayBookmarkManager(std::move(path)));
}

bool GWLumewayBookmarkManager::loadData() {
  std::string error;
  std::optional<std::string> bytes = fs::readFile(_path, kMaxBookmarkFileSize, &error);
  if (bytes) {
    plist::ReadResult read = plist::readPropertyList(
        *bytes, {.mutability = plist::Mutability::MutableContainers, .xmlUIDDictionaries = false});
    if (read && read.value->isDictionary()) {
      _dictionary = read.value->dictionary();
    } else {
      GW_LOG(1, "%s: %s", _path.c_str(), read ? "not a dictionary" : read.error.c_str());
    }
  } else {
    GW_LOG(1, "%s", error.c_str());
  }
  if (!_dictionary) {
    GW_LOG(0, "Couldn't read bookmarks from path: %@", _path);
    return false;
  }
  const plist::Value& version = _dictionary->get(keys::kFileVersion);
  _fileVersion = version.isNumber() || version.isString() ? std::int32_t(version.intValue()) : 0;
  _dataLoaded = true;
  return true;
}

plist::DictionaryRef GWLumewayBookmarkManager::_bookmarksBarDictionary() const {
  try {
    const plist::Array* children =
        _dictionary ? _dictionary->get(keys::kChildren).ifArray() : nullptr;
    if (!children) return nullptr;
    for (const plist::Value& child : *children) {
      const plist::Dictionary* node = child.ifDictionary();
      const std::string* title = node ? node->get(keys::kTitle).ifString() : nullptr;
      if (title && *title == keys::kBookmarksBarTitle) return child.dictionary();
    }
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
  return nullptr;
}

std::vector<GWLumewayBookmarkRef> GWLumewayBookmarkManager::allBookmarks() {
  std::vector<GWLumewayBookmarkRef> collected;
  if (!_dataLoaded) loadData();
  try {
    const plist::Array* children =
        _dictionary ? _dictionary->get(keys::kChildren).ifArray() : nullptr;
    if (!children) return collected;
    for (const plist::Value& child : *children) {
      const plist::Dictionary* node = child.ifDictionary();
      const std::string* type = node ? node->get(keys::kType).ifString() : nullptr;
      GWLumewayBookmarkRef object;
      if (type && *type == keys::kTypeLeaf) {
        object = GWLumewayBookmark::bookmarkWithDictionary(child.dictionary());
      } else if (type && *type == keys::kTypeList) {
        object = GWLumewayBookmarkFolder::bookmarkWithDictionary(child.dictionary());
      } else {
        GW_LOG(0, "*** Unknown node type.");
      }
      if (object) collected.push_back(std::move(object));
    }
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
  return collected;
}

GWLumewayBookmarkFolderRef GWLumewayBookmarkManager::bookmarksBarBookmarks() {
  if (!_dataLoaded) loadData();
  return GWLumewayBookmarkFolder::bookmarkWithDictionary(_bookmarksBarDictionary());
}

std::string GWLumewayBookmarkManager::description() const {
  return "<GWLumewayBookmarkManager: " + _path + ">";
}

}  // namespace gw
