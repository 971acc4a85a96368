// GWLumewayBookmarkFolder: a list node of the bookmark tree. Every edit changes the node's
// "Children" array first and the child objects second, so both always describe the same tree.
#include <gatewise/bookmarks.h>
#include <gatewise/core.h>
#include <gatewise/exception.h>
#include <gatewise/log.h>

#include <algorithm>
#include <vector>

#include "web/bookmarks/bookmark_keys.h"

namespace gw {

namespace keys = bookmark_keys;

// Wraps "Children" node by node, keeping the dictionaries of the folders being built, so that a
// dictionary tree that holds itself (only possible in memory) ends instead of recursing forever.
class BookmarkFolderBuilder {
 public:
  GWLumewayBookmarkFolderRef build(plist::DictionaryRef dictionary) {
    GWLumewayBookmarkFolderRef folder(new GWLumewayBookmarkFolder(std::move(dictionary)));
    if (!folder->_dictionary) return folder;
    const plist::Array* children = folder->_dictionary->get(keys::kChildren).ifArray();
    if (!children) return folder;
    open_.push_back(folder->_dictionary.get());
    for (const plist::Value& child : *children) {
      if (GWLumewayBookmarkRef object = wrap(child)) folder->_children.push_back(object);
    }
    open_.pop_back();
    return folder;
  }

 private:
  GWLumewayBookmarkRef wrap(const plist::Value& child) {
    const plist::Dictionary* node = child.ifDictionary();
    const std::string* type = node ? node->get(keys::kType).ifString() : nullptr;
    if (type && *type == keys::kTypeLeaf)
      return GWLumewayBookmark::initWithDictionary(child.dictionary());
    if (!type || *type != keys::kTypeList) {
      GW_LOG(0, "*** Unknown node type.");
      return nullptr;
    }
    if (std::find(open_.begin(), open_.end(), node) != open_.end()) {
      GW_LOG(0, "*** Bookmark folder holds itself; skipped.");
      return nullptr;
    }
    if (open_.size() >= GWLumewayBookmarkFolder::kMaxFolderDepth) {
      GW_LOG(0, "*** Bookmark folders nested deeper than %u; skipped.",
             GWLumewayBookmarkFolder::kMaxFolderDepth);
      return nullptr;
    }
    return build(child.dictionary());
  }

  std::vector<const plist::Dictionary*> open_;
};

namespace {

GWException rangeError(std::size_t index, std::size_t count) {
  return GWException("NSRangeException", "index " + std::to_string(index) +
                                             " beyond bounds [0 .. " + std::to_string(count) + ")");
}

// The node's "Children", made when missing so that a folder node without one can still be edited;
// null for a folder over nothing. Throws when "Children" is something else than an array.
plist::Array* editableChildren(const plist::DictionaryRef& dictionary) {
  if (!dictionary) return nullptr;
  const plist::Value& children = dictionary->get(keys::kChildren);
  if (children.isNull()) {
    dictionary->set(keys::kChildren, plist::Array::make());
    return dictionary->get(keys::kChildren).ifArray();
  }
  if (!children.isArray()) {
    throw GWException("NSInvalidArgumentException", "the folder's Children is not an array");
  }
  return children.ifArray();
}

// The number of folder titles in a path ("/A//B/" holds two).
std::size_t folderCount(std::string_view path) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (path[i] != '/' && (i == 0 || path[i - 1] == '/')) ++count;
  }
  return count;
}

plist::Value dictionaryOf(const GWLumewayBookmarkRef& bookmark) {
  if (!bookmark || !bookmark->dictionaryRepresentation()) {
    throw GWException("NSInvalidArgumentException", "attempt to insert nil bookmark");
  }
  return bookmark->dictionaryRepresentation();
}

}  // namespace

GWLumewayBookmarkFolderRef GWLumewayBookmarkFolder::initWithDictionary(
    plist::DictionaryRef dictionary) {
  return BookmarkFolderBuilder().build(std::move(dictionary));
}

GWLumewayBookmarkFolderRef GWLumewayBookmarkFolder::initWithTitle(std::string_view title) {
  return initWithDictionary(plist::Dictionary::make({{keys::kType, keys::kTypeList},
                                                     {keys::kUUID, UUIDString()},
                                                     {keys::kChildren, plist::Array::make()},
                                                     {keys::kTitle, title}}));
}

std::optional<std::string> GWLumewayBookmarkFolder::title() const {
  return stringForKey(keys::kTitle);
}

void GWLumewayBookmarkFolder::setTitle(std::optional<std::string> title) {
  if (!title) throw GWException("NSInvalidArgumentException", "attempt to set a nil folder title");
  editableDictionary().set(keys::kTitle, std::move(*title));
}

std::vector<GWLumewayBookmarkRef> GWLumewayBookmarkFolder::allBookmarks() const {
  std::vector<GWLumewayBookmarkRef> leaves;
  for (const GWLumewayBookmarkRef& child : _children) {
    if (child->isFolder()) {
      auto below = static_cast<const GWLumewayBookmarkFolder&>(*child).allBookmarks();
      leaves.insert(leaves.end(), below.begin(), below.end());
    } else {
      leaves.push_back(child);
    }
  }
  return leaves;
}

GWLumewayBookmarkRef GWLumewayBookmarkFolder::bookmarkAtIndex(std::size_t index) const {
  if (index >= _children.size()) throw rangeError(index, _children.size());
  return _children[index];
}

std::int64_t GWLumewayBookmarkFolder::indexOfBookmarkFolderWithTitle(std::string_view title) const {
  for (std::size_t i = 0; i < _children.size(); ++i) {
    if (_children[i]->isFolder() && _children[i]->title() == title) return std::int64_t(i);
  }
  return -1;
}

std::int64_t GWLumewayBookmarkFolder::indexOfBookmark(const GWLumewayBookmark& bookmark) const {
  std::optional<std::string> wanted = bookmark.uuid();
  for (std::size_t i = 0; i < _children.size(); ++i) {
    if (_children[i]->uuid() == wanted) return std::int64_t(i);
  }
  return -1;
}

GWLumewayBookmarkFolderRef GWLumewayBookmarkFolder::folderForBookmark(
    const GWLumewayBookmark& bookmark) {
  std::optional<std::string> wanted = bookmark.uuid();
  for (const GWLumewayBookmarkRef& child : _children) {
    if (child->uuid() == wanted) {
      return std::static_pointer_cast<GWLumewayBookmarkFolder>(shared_from_this());
    }
    if (child->isFolder()) {
      if (auto found = static_cast<GWLumewayBookmarkFolder&>(*child).folderForBookmark(bookmark))
        return found;
    }
  }
  return nullptr;
}

bool GWLumewayBookmarkFolder::isWithin(const GWLumewayBookmarkFolder& folder) const {
  if (&folder == this || (_dictionary && folder._dictionary == _dictionary)) return true;
  for (const GWLumewayBookmarkRef& child : folder._children) {
    if (child->isFolder() && isWithin(static_cast<const GWLumewayBookmarkFolder&>(*child)))
      return true;
  }
  return false;
}

void GWLumewayBookmarkFolder::addBookmark(const GWLumewayBookmarkRef& bookmark) {
  plist::Value node = dictionaryOf(bookmark);
  if (bookmark->isFolder() && isWithin(static_cast<const GWLumewayBookmarkFolder&>(*bookmark))) {
    GW_LOG(0, "*** A bookmark folder cannot hold itself; not added.");
    return;
  }
  if (plist::Array* children = editableChildren(_dictionary)) children->append(std::move(node));
  _children.push_back(bookmark);
}

void GWLumewayBookmarkFolder::addBookmark(const GWLumewayBookmarkRef& bookmark, std::size_t index) {
  try {
    plist::Value node = dictionaryOf(bookmark);
    if (bookmark->isFolder() && isWithin(static_cast<const GWLumewayBookmarkFolder&>(*bookmark))) {
      GW_LOG(0, "*** A bookmark folder cannot hold itself; not added.");
      return;
    }
    if (plist::Array* children = editableChildren(_dictionary)) children->insert(index, node);
    if (index > _children.size()) throw rangeError(index, _children.size());
    _children.insert(_children.begin() + std::ptrdiff_t(index), bookmark);
  } catch (const std::exception& e) {
    GW_LOG_CAUGHT(e);
  }
}

void GWLumewayBookmarkFolder::addBookmark(const GWLumewayBookmarkRef& bookmark,
                                          std::string_view path) {
  // A path comes from outside (a flat list): nesting deeper than a reader takes would be dropped
  // on the next read, and would make every walk of the tree recurse without bound.
  if (folderCount(path) >= kMaxFolderDepth) {
    GW_LOG(0, "*** Bookmark folders nested deeper than %u; skipped.", kMaxFolderDepth);
    return;
  }
  GWLumewayBookmarkFolder* folder = this;
  while (!path.empty()) {
    std::size_t slash = path.find('/');
    std::string_view title = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (title.empty()) continue;
    std::int64_t index = folder->indexOfBookmarkFolderWithTitle(title);
    if (index < 0) {
      GWLumewayBookmarkFolderRef created = initWithTitle(title);
      folder->addBookmark(created);
      folder = created.get();
    } else {
      folder = static_cast<GWLumewayBookmarkFolder*>(folder->_children[std::size_t(index)].get());
    }
  }
  folder->addBookmark(bookmark);
}

void GWLumewayBookmarkFolder::removeBookmark(const GWLumewayBookmarkRef& bookmark) {
  if (!bookmark) return;
  const plist::DictionaryRef& node = bookmark->dictionaryRepresentation();
  plist::Array* children = _dictionary ? _dictionary->get(keys::kChildren).ifArray() : nullptr;
  if (node && children) {
    plist::Value wanted(node);
    auto equal = [&](const plist::Value& v) { return v == wanted; };
    if (std::any_of(children->begin(), children->end(), equal))
      std::erase_if(children->mutableItems(), equal);
  }
  std::erase(_children, bookmark);
}

void GWLumewayBookmarkFolder::removeBookmarks(const std::vector<GWLumewayBookmarkRef>& bookmarks) {
  for (const GWLumewayBookmarkRef& bookmark : bookmarks) removeBookmark(bookmark);
}

void GWLumewayBookmarkFolder::removeBookmarkAtIndex(std::size_t index) {
  GWLumewayBookmarkRef child = bookmarkAtIndex(index);
  _children.erase(_children.begin() + std::ptrdiff_t(index));
  const plist::DictionaryRef& node = child->dictionaryRepresentation();
  if (!_dictionary || !node) return;
  plist::Array* children = _dictionary->get(keys::kChildren).ifArray();
  if (!children) return;
  plist::Value wanted(node);
  std::erase_if(children->mutableItems(), [&](const plist::Value& v) { return v == wanted; });
}

std::string GWLumewayBookmarkFolder::description() const {
  return title().value_or("(null)") + " (folder, " + std::to_string(_children.size()) +
         " children)";
}

}  // namespace gw
