// Keyed coding of the bookmark classes. A folder's archive holds its dictionary and its child
// objects, as other readers expect. Decoding builds the children afresh from the decoded
// dictionary instead of taking the archived "children": the objects must wrap the very nodes of
// "Children", and an archive written elsewhere need not keep that promise.
#include "web/bookmarks/bookmark_coding.h"

#include <gatewise/archive.h>
#include <gatewise/bookmarks.h>
#include <gatewise/log.h>

#include <mutex>

namespace gw {
namespace {

constexpr const char kDictionaryKey[] = "dictionary";
constexpr const char kChildrenKey[] = "children";

void encodeBookmark(const GWObject& object, archive::Encoder& coder) {
  const auto& bookmark = static_cast<const GWLumewayBookmark&>(object);
  const plist::DictionaryRef& dictionary = bookmark.dictionaryRepresentation();
  coder.encodeObject(kDictionaryKey, dictionary ? plist::Value(dictionary) : plist::Value());
}

void encodeFolder(const GWObject& object, archive::Encoder& coder) {
  encodeBookmark(object, coder);
  const auto& folder = static_cast<const GWLumewayBookmarkFolder&>(object);
  auto children = plist::Array::make();
  for (const GWLumewayBookmarkRef& child : folder.bookmarks()) children->append(child);
  coder.encodeObject(kChildrenKey, children);
}

// The archived dictionary: null (an object over nothing) or a dictionary; anything else fails.
bool decodeDictionary(archive::Decoder& coder, plist::DictionaryRef* out) {
  plist::Value v = coder.decodeObject(kDictionaryKey);
  if (v.isNull()) return true;
  if (!v.isDictionary()) {
    GW_LOG(0, "*** Archived bookmark dictionary is not a dictionary");
    return false;
  }
  *out = v.dictionary();
  return true;
}

GWObjectRef decodeBookmark(archive::Decoder& coder) {
  plist::DictionaryRef dictionary;
  if (!decodeDictionary(coder, &dictionary)) return nullptr;
  return GWLumewayBookmark::initWithDictionary(dictionary);
}

GWObjectRef decodeFolder(archive::Decoder& coder) {
  plist::DictionaryRef dictionary;
  if (!decodeDictionary(coder, &dictionary)) return nullptr;
  return GWLumewayBookmarkFolder::initWithDictionary(dictionary);
}

}  // namespace

void registerBookmarkCoders() {
  static std::once_flag once;
  std::call_once(once, [] {
    archive::registerCoder<GWLumewayBookmark>(
        {"GWLumewayBookmark", {"GWLumewayBookmark", "NSObject"}, encodeBookmark, decodeBookmark});
    archive::registerCoder<GWLumewayBookmarkFolder>(
        {"GWLumewayBookmarkFolder",
         {"GWLumewayBookmarkFolder", "GWLumewayBookmark", "NSObject"},
         encodeFolder,
         decodeFolder});
  });
}

}  // namespace gw
