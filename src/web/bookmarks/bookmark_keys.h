// The keys and fixed values of the bookmark file's node dictionaries and of the flat list, written
// down once for the model, the file reader and the writers.
#pragma once

namespace gw::bookmark_keys {

inline constexpr const char kType[] = "WebBookmarkType";
inline constexpr const char kTypeLeaf[] = "WebBookmarkTypeLeaf";
inline constexpr const char kTypeList[] = "WebBookmarkTypeList";
inline constexpr const char kUUID[] = "WebBookmarkUUID";
inline constexpr const char kURLString[] = "URLString";
inline constexpr const char kURIDictionary[] = "URIDictionary";
inline constexpr const char kURITitle[] = "title";
inline constexpr const char kURIAddress[] = "";  // the empty string is a real key
inline constexpr const char kTitle[] = "Title";
inline constexpr const char kChildren[] = "Children";

// The version key as the reader spells it, and as the managed writer spells it (double i): a file
// written for a managed user reads back with version 0.
inline constexpr const char kFileVersion[] = "WebBookmarkFileVersion";
inline constexpr const char kWrittenFileVersion[] = "WebBookmarkFileVersiion";
inline constexpr const char kRootUUID[] = "Root";
inline constexpr const char kBookmarksBarTitle[] = "BookmarksBar";
inline constexpr const char kFlatListFolderTitle[] = "Bookmarks Bar";

inline constexpr const char kPageTitle[] = "pageTitle";
inline constexpr const char kAddress[] = "address";
inline constexpr const char kBookmarkPath[] = "bookmarkPath";

}  // namespace gw::bookmark_keys
