// GWLumewayBookmark: a leaf node of the bookmark tree, read and written in its dictionary.
#include <gatewise/bookmarks.h>
#include <gatewise/core.h>
#include <gatewise/exception.h>
#include <gatewise/format.h>

#include "web/bookmarks/bookmark_coding.h"
#include "web/bookmarks/bookmark_keys.h"

namespace gw {

namespace keys = bookmark_keys;

namespace {

const bool kCodersRegistered = (registerBookmarkCoders(), true);

}  // namespace

GWLumewayBookmark::GWLumewayBookmark(plist::DictionaryRef dictionary)
    : _dictionary(std::move(dictionary)) {
  (void)kCodersRegistered;
  if (_dictionary && !_dictionary->contains(keys::kUUID))
    _dictionary->set(keys::kUUID, UUIDString());
}

GWLumewayBookmarkRef GWLumewayBookmark::initWithDictionary(plist::DictionaryRef dictionary) {
  return GWLumewayBookmarkRef(new GWLumewayBookmark(std::move(dictionary)));
}

GWLumewayBookmarkRef GWLumewayBookmark::initWithTitle(std::string_view title,
                                                      std::string_view url) {
  auto uri = plist::Dictionary::make({{keys::kURITitle, title}, {keys::kURIAddress, url}});
  return initWithDictionary(plist::Dictionary::make({{keys::kType, keys::kTypeLeaf},
                                                     {keys::kUUID, UUIDString()},
                                                     {keys::kURLString, url},
                                                     {keys::kURIDictionary, uri}}));
}

std::optional<std::string> GWLumewayBookmark::stringForKey(std::string_view key) const {
  if (!_dictionary) return std::nullopt;
  if (const std::string* s = _dictionary->get(key).ifString()) return *s;
  return std::nullopt;
}

plist::Dictionary& GWLumewayBookmark::editableDictionary() const {
  if (!_dictionary) throw GWException("NSInvalidArgumentException", "bookmark has no dictionary");
  if (!_dictionary->isMutable()) {
    throw GWException("NSInternalInconsistencyException", "bookmark dictionary is immutable");
  }
  return *_dictionary;
}

std::optional<std::string> GWLumewayBookmark::title() const {
  if (!_dictionary) return std::nullopt;
  const plist::Dictionary* uri = _dictionary->get(keys::kURIDictionary).ifDictionary();
  if (!uri) return std::nullopt;
  if (const std::string* s = uri->get(keys::kURITitle).ifString()) return *s;
  return std::nullopt;
}

void GWLumewayBookmark::setTitle(std::optional<std::string> title) {
  if (!title) return;
  plist::Dictionary& node = editableDictionary();
  const plist::Value& uri = node.get(keys::kURIDictionary);
  if (uri.isNull()) {
    node.set(keys::kURIDictionary, plist::Dictionary::make({{keys::kURITitle, *title}}));
  } else if (uri.isDictionary()) {
    uri.dictionary()->set(keys::kURITitle, std::move(*title));
  } else {
    throw GWException("NSInvalidArgumentException", "URIDictionary is not a dictionary");
  }
}

std::optional<std::string> GWLumewayBookmark::url() const { return stringForKey(keys::kURLString); }

void GWLumewayBookmark::setURL(std::optional<std::string> url) {
  if (!url) return;
  plist::Dictionary& node = editableDictionary();
  const plist::Value& uri = node.get(keys::kURIDictionary);
  if (uri.isNull()) {
    node.set(keys::kURIDictionary, plist::Dictionary::make({{keys::kURIAddress, *url}}));
  } else if (uri.isDictionary()) {
    uri.dictionary()->set(keys::kURIAddress, *url);
  } else {
    throw GWException("NSInvalidArgumentException", "URIDictionary is not a dictionary");
  }
  node.set(keys::kURLString, std::move(*url));
}

std::optional<std::string> GWLumewayBookmark::uuid() const { return stringForKey(keys::kUUID); }

std::string GWLumewayBookmark::description() const {
  auto text = [](const std::optional<std::string>& s) { return s ? *s : std::string("(null)"); };
  return text(title()) + " -- " + text(url());
}

}  // namespace gw
