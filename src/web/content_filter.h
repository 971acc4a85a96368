// The content filter's internals: its preference reader, its list matching and its diagnostics.
//
// The content-filter functions write their messages straight to standard error, each message
// flushed at once, so that the filtering component's own output shows them in order; they never
// go through the library's log. Callable from any thread.
#pragma once

#include <gatewise/format.h>
#include <gatewise/plist.h>

#include <string_view>

namespace gw::web {

// Writes text to standard error as it stands (the caller supplies the newline) and flushes.
void writeFilterMessage(std::string_view text);

// The same, formatted with the library's printf-compatible formatter.
template <class... Args>
void writeFilterMessagef(std::string_view format, const Args&... args) {
  writeFilterMessage(gw::format(format, args...));
}

}  // namespace gw::web

// The value of key in gUserName's content-filter preference file (either encoding), or a null
// value with the reason written to standard error.
gw::plist::Value CopyContentFilterPlistValueForKey(std::string_view key);

// Whether url begins with one of the string entries of list, ignoring letter case. No parsing of
// the URL: an entry matches exactly the URLs written with it as their beginning. An empty entry
// matches nothing. Writes the URL and the list to standard error first.
bool OnList(const gw::plist::Value& url, const gw::plist::Value& list);
