// Browser bookmarks: the node tree of the browser's bookmark file, its flat-list form, the reader
// of a bookmark file and the writer of a managed user's bookmarks.
//
// GWLumewayBookmark (a leaf: one address) and GWLumewayBookmarkFolder (an ordered list of nodes)
// are a live view over one tree of mutable node dictionaries: each object holds its node dictionary
// itself (not a copy), a folder's children wrap the very dictionaries of its "Children" array, and
// every edit made through an object is made in the dictionaries in the same call, so the root's
// dictionary can be written out at any moment. Keys the model does not know are never touched.
// Nodes of an unknown type stay in "Children" but get no object, so index operations address the
// objects. Objects are not synchronised: a tree belongs to one thread at a time.
//
// Operations the model "raises" on (an index out of range, editing an immutable tree, a null
// folder title) throw GWException; the exported functions below never throw. Both classes are
// keyed-archivable ("dictionary", and "children" for folders).
//
// GWLumewayBookmarkManager reads one bookmark file (bounded, lazily, retried after a failure) into
// mutable containers. The exported functions move bookmarks between the preference editor, the
// daemon ("com.morvane.gatewise") and the user's file "~/Library/Lumeway/Bookmarks.plist"; they
// log their failures and give null or nothing.
#pragma once

#include <gatewise/export.h>
#include <gatewise/object.h>
#include <gatewise/plist.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gw {

class GWLumewayBookmark;
class GWLumewayBookmarkFolder;
class GWLumewayBookmarkManager;
using GWLumewayBookmarkRef = std::shared_ptr<GWLumewayBookmark>;
using GWLumewayBookmarkFolderRef = std::shared_ptr<GWLumewayBookmarkFolder>;
using GWLumewayBookmarkManagerRef = std::shared_ptr<GWLumewayBookmarkManager>;

// The notification posted after a managed user's bookmark file was written (object: user name).
inline constexpr const char kGWLumewayBookmarksWrittenNotification[] =
    "GatewiseLumewayBookmarksWrittenNotification";

class GW_EXPORT GWLumewayBookmark : public GWObject {
 public:
  // Keeps dictionary (may be null: an object over nothing) and gives it a new "WebBookmarkUUID"
  // when it has none.
  static GWLumewayBookmarkRef initWithDictionary(plist::DictionaryRef dictionary);
  static GWLumewayBookmarkRef bookmarkWithDictionary(plist::DictionaryRef dictionary) {
    return initWithDictionary(std::move(dictionary));
  }
  // A new leaf node {"WebBookmarkType", "WebBookmarkUUID", "URLString", "URIDictionary"}.
  static GWLumewayBookmarkRef initWithTitle(std::string_view title, std::string_view url);

  const plist::DictionaryRef& dictionaryRepresentation() const { return _dictionary; }

  // "URIDictionary" -> "title"; nullopt when absent or not a string. A null title is ignored.
  virtual std::optional<std::string> title() const;
  virtual void setTitle(std::optional<std::string> title);
  // "URLString". Setting writes "URLString" and "URIDictionary" -> ""; a null address is ignored.
  std::optional<std::string> url() const;
  void setURL(std::optional<std::string> url);
  std::optional<std::string> uuid() const;
  virtual bool isFolder() const { return false; }

  // "title -- address".
  std::string description() const override;

  GWLumewayBookmark(const GWLumewayBookmark&) = delete;
  GWLumewayBookmark& operator=(const GWLumewayBookmark&) = delete;

 protected:
  explicit GWLumewayBookmark(plist::DictionaryRef dictionary);
  std::optional<std::string> stringForKey(std::string_view key) const;
  // The dictionary to edit; throws GWException when there is none or it is immutable.
  plist::Dictionary& editableDictionary() const;

  plist::DictionaryRef _dictionary;
};

class GW_EXPORT GWLumewayBookmarkFolder : public GWLumewayBookmark {
 public:
  // Keeps dictionary, adds a UUID if missing, and wraps each node of "Children": leaves and folders
  // (recursively) get objects; other node types are logged "*** Unknown node type." and skipped.
  // A folder that holds itself, or nesting deeper than kMaxFolderDepth, is logged and skipped.
  static GWLumewayBookmarkFolderRef initWithDictionary(plist::DictionaryRef dictionary);
  static GWLumewayBookmarkFolderRef bookmarkWithDictionary(plist::DictionaryRef dictionary) {
    return initWithDictionary(std::move(dictionary));
  }
  // A new empty folder node {"WebBookmarkType", "WebBookmarkUUID", "Children", "Title"}.
  static GWLumewayBookmarkFolderRef initWithTitle(std::string_view title);
  // The tree of a flat list, in a new folder titled "Bookmarks Bar". Entries without "address"
  // (or that are not dictionaries) are logged "*** Address was nil" and skipped; a missing
  // "pageTitle" gives "Unknown".
  static GWLumewayBookmarkFolderRef bookmarkFolderWithFlatArray(const plist::ArrayRef& flatArray);

  static constexpr unsigned kMaxFolderDepth = 128;

  // The node's "Title". Setting a null title throws.
  std::optional<std::string> title() const override;
  void setTitle(std::optional<std::string> title) override;
  bool isFolder() const override { return true; }

  const std::vector<GWLumewayBookmarkRef>& bookmarks() const { return _children; }
  std::size_t count() const { return _children.size(); }
  // Every leaf below this folder, depth first, in order.
  std::vector<GWLumewayBookmarkRef> allBookmarks() const;
  // Throws GWException ("NSRangeException") past the end.
  GWLumewayBookmarkRef bookmarkAtIndex(std::size_t index) const;
  // The first direct child folder titled exactly title (case-sensitive); -1 when none.
  std::int64_t indexOfBookmarkFolderWithTitle(std::string_view title) const;
  // The first direct child with bookmark's UUID; -1 when none.
  std::int64_t indexOfBookmark(const GWLumewayBookmark& bookmark) const;
  // The folder that directly holds a node with bookmark's UUID (pre-order, first match); null.
  GWLumewayBookmarkFolderRef folderForBookmark(const GWLumewayBookmark& bookmark);

  // Appends bookmark's dictionary to "Children" (made when missing) and the object to the
  // children. Adding a folder that holds this folder is refused (logged): the tree stays a tree.
  void addBookmark(const GWLumewayBookmarkRef& bookmark);
  // Inserts at index; an index past the end is caught and logged "*** Caught exception: %@", and
  // an insertion already made into "Children" stays.
  void addBookmark(const GWLumewayBookmarkRef& bookmark, std::size_t index);
  // Adds below the folder path ("/A/B/"), reusing the first child folder of each title and creating
  // missing ones; "" or "/" adds here. A path of kMaxFolderDepth folders or more is refused
  // (logged), as a reader would skip what lies that deep.
  void addBookmark(const GWLumewayBookmarkRef& bookmark, std::string_view path);
  // Removes the object from the children and every equal dictionary (by content) from "Children".
  void removeBookmark(const GWLumewayBookmarkRef& bookmark);
  void removeBookmarks(const std::vector<GWLumewayBookmarkRef>& bookmarks);
  // Throws GWException ("NSRangeException") past the end.
  void removeBookmarkAtIndex(std::size_t index);

  // The flat list of this folder's children from "/": dictionaries {"pageTitle", "address",
  // "bookmarkPath"}, filled in that order up to the first missing value.
  plist::ArrayRef flatArray() const;
  static plist::ArrayRef flatArrayWithArray(const std::vector<GWLumewayBookmarkRef>& nodes,
                                            std::string_view path);
  // The earlier form: {"pageTitle", "address"} for each leaf of allBookmarks.
  plist::ArrayRef flatArrayOLD() const;

  // "title (folder, N children)".
  std::string description() const override;

 private:
  friend class BookmarkFolderBuilder;
  explicit GWLumewayBookmarkFolder(plist::DictionaryRef dictionary)
      : GWLumewayBookmark(std::move(dictionary)) {}
  // Whether this folder is folder or lies anywhere below it.
  bool isWithin(const GWLumewayBookmarkFolder& folder) const;

  std::vector<GWLumewayBookmarkRef> _children;
};

class GW_EXPORT GWLumewayBookmarkManager : public GWObject {
 public:
  // Keeps the path; nothing is read until first use.
  static GWLumewayBookmarkManagerRef initWithPath(std::string path);

  // Files larger than this are refused unread.
  static constexpr std::size_t kMaxBookmarkFileSize = std::size_t(32) << 20;

  // Reads the file (a dictionary, XML or binary) into mutable containers. false (logged
  // "Couldn't read bookmarks from path: %@") when it cannot be read; a later use tries again.
  bool loadData();
  // The whole file; null before a successful load.
  const plist::DictionaryRef& dictionaryRepresentation() const { return _dictionary; }
  // "WebBookmarkFileVersion", 0 when absent.
  std::int32_t fileVersion() const { return _fileVersion; }
  // The root's direct children as objects (loads first if needed).
  std::vector<GWLumewayBookmarkRef> allBookmarks();
  // The "BookmarksBar" folder (loads first if needed); without one, a folder over nothing.
  GWLumewayBookmarkFolderRef bookmarksBarBookmarks();
  // The first root child titled exactly "BookmarksBar", or null.
  plist::DictionaryRef _bookmarksBarDictionary() const;

  std::string description() const override;

 private:
  explicit GWLumewayBookmarkManager(std::string path) : _path(std::move(path)) {}

  plist::DictionaryRef _dictionary;
  std::string _path;
  std::int32_t _fileVersion = 0;
  bool _dataLoaded = false;
};

// The "siteWhitelist" value the editor stores: the dictionary of bookmarkFolderWithFlatArray.
GW_EXPORT plist::DictionaryRef GWLumewayCreateBookmarksFromFlatArray(
    const plist::ArrayRef& flatArray);

// The user's bookmark file as the daemon reads it; null on any failure (logged). A null userName
// means the calling process's user; a null authData is accepted only from root.
GW_EXPORT plist::DictionaryRef GWLumewayCopyExistingBookmarks(
    std::optional<std::string_view> userName, const std::optional<plist::Data>& authData);

// Asks the daemon to write bookmarks (a whole bookmark file) as the user's bookmark file. Nothing
// is reported back.
GW_EXPORT void GWLumewayWriteBookmarks(std::optional<std::string_view> userName,
                                       const plist::DictionaryRef& bookmarks,
                                       const std::optional<plist::Data>& authData);

// What the root-only writer did.
enum class GWBookmarkWriteOutcome {
  Written,
  NotRoot,            // "*** Must be called by root"
  NoPreferences,      // "Lumeway prefs don't exist"
  NoBookmarks,        // "Couldn't get lumeway bookmarks"
  NoHomeFolder,       // "*** Couldn't get home directory for user %@"
  WriteFailed,        // "*** Couldn't write bookmarks to path %@" (the old file is kept)
  PermissionsFailed,  // "*** Couldn't change permissions of path %@" (the old file is kept)
  Failed,             // an exception, caught and logged
};

// The root-only writer: the user's "siteWhitelist" of the managed preference domain
// "com.morvane.Lumeway", wrapped in a root folder, written to "~/Library/Lumeway/Bookmarks.plist"
// (mode 0600, owned by the user and the group of the user's name), then
// kGWLumewayBookmarksWrittenNotification. The file is written in the user's own folder without
// following links; any failure leaves the old file in place.
GW_EXPORT void GWLumewayWriteUserBookmarksToBookmarksFile(std::string_view userName);
// The same, telling what happened.
GW_EXPORT GWBookmarkWriteOutcome writeUserBookmarksToBookmarksFile(std::string_view userName);

// A distributed-notification callback for clients to register: when userInfo's
// "com.morvane.QRM.changedDomains" holds "com.morvane.gatewise.contentfilter", this module's user
// cache is dropped.
GW_EXPORT void QRMPrefsChanged(const void* center, const void* observer, std::string_view name,
                               std::string_view object, const plist::DictionaryRef& userInfo);

}  // namespace gw
