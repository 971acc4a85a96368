// Website restrictions and the content-filter front end.
//
// Two groups of callers use this header. The browser asks whether a user is limited to a website
// white list and reports the pages it visited or blocked (the GWLumeway... functions); these log
// through the library's log. The page-filtering component asks for a verdict on a page
// (GWCopyContentEvaluation): the administrator's "filterWhitelist" and "filterBlacklist" decide
// first, by URL prefix, and only when neither does is the page sent to the web-filter service
// "com.morvane.webfilter" for scoring. The content-filter functions write their diagnostics
// straight to standard error, one message per line, flushed after each.
//
// Settings come from the user's managed preference file of "com.morvane.gatewise.contentfilter"
// (below the system root). Reports go to the daemon "com.morvane.gatewise", evaluations and page
// dumps to the web-filter service; every message is sent with a 1000 ms time-out and the service
// is looked up afresh on each call. Nothing here fails other than by a null or empty result: a
// daemon or a filter service that is absent or slow makes reports vanish and evaluations come
// back null (the caller then lets the page through).
//
// Threads: any thread may call any function. The content filter's user and lists (gUserName,
// gWebWhiteList, gWebBlackList) are filled once, under a lock, by the first evaluation that can
// fill them, and are never reloaded for the life of the process: a changed preference reaches the
// filter when the process restarts. Host programs may set gUserName before the first evaluation
// to choose the user themselves; they must not change the globals while evaluations run.
// Returned values are new and owned by the caller, except GWLumewayGetWhiteListForUser's, which
// shares the container read from the file.
#pragma once

#include <gatewise/export.h>
#include <gatewise/plist.h>

#include <optional>
#include <string>
#include <string_view>

// Keys of the page-description dictionary shared by the browser, the filter service and the
// daemon.
GW_EXTERN_C const char kWFUsernameKey[];               // "WFUsernameKey"
GW_EXTERN_C const char kWFPageTitleKey[];              // "WFPageTitle"
GW_EXTERN_C const char kWFDebugPageKey[];              // "WFDebugPage"
GW_EXTERN_C const char kWFDebugMessageKey[];           // "WFDebugMessage"
GW_EXTERN_C const char kWFFilterRestrictedScoreKey[];  // "WFFilterRestrictedScoreKey"
GW_EXTERN_C const char kWFFilterDescriptionKey[];      // "WFFilterDescriptionKey"
GW_EXTERN_C const char kWFFilterWantsToBlockKey[];     // "WFFilterWantsToBlock"
GW_EXTERN_C const char kWFURLKey[];                    // "WFURL"

// The content-filter preference domain and the keys read from it.
inline constexpr const char kGWContentFilterDomain[] = "com.morvane.gatewise.contentfilter";

// The content filter's process-wide state: null until set, then a string (the user whose lists
// are used) and two arrays of URL prefixes.
GW_EXPORT extern gw::plist::Value gUserName;
GW_EXPORT extern gw::plist::Value gWebWhiteList;
GW_EXPORT extern gw::plist::Value gWebBlackList;

// Browser-facing functions. A null userName means the calling process's user.

// True exactly when "restrictWeb" is true, "siteWhitelist" has elements and "useContentFilter" is
// false. A missing or unreadable file: false.
GW_EXPORT bool GWLumewayHasWebSiteRestrictions(std::optional<std::string_view> userName);
// The "siteWhitelist" value when the user has website restrictions; a null value otherwise.
GW_EXPORT gw::plist::Value GWLumewayGetWhiteListForUser(std::optional<std::string_view> userName);
// Retired: the white list is kept as managed bookmarks now. Both only log and change nothing.
GW_EXPORT void GWLumewayAddToWhiteList(const gw::plist::Value& sites = {},
                                       std::optional<std::string_view> userName = std::nullopt);
GW_EXPORT void GWLumewayRemoveFromWhiteList(
    const gw::plist::Value& site = {}, std::optional<std::string_view> userName = std::nullopt);
// Reports a page the browser blocked, as GWContentFilterPageWasBlocked does ({"WFPageTitle":
// title or "Unknown", "WFURL": url}). A null url logs "invalid param" and sends nothing.
GW_EXPORT void GWLumewayPageWasBlocked(std::optional<std::string_view> pageTitle,
                                       std::optional<std::string_view> pageURL);
// Reports a visited page to the daemon with the caller's real uid. Titles longer than 1024 bytes
// do not fit the message: the visit then goes unrecorded.
GW_EXPORT void GWLumewayVisitedPage(std::optional<std::string_view> pageTitle,
                                    std::optional<std::string_view> pageURL);

// Content-filter functions. pageContent is the page's raw bytes (a data value; anything else
// counts as null); pageMeta a page-description dictionary.

// Sends the page description to the daemon as a blocked page.
GW_EXPORT void GWContentFilterPageWasBlocked(const gw::plist::Value& pageInfo);
// The filter service's text dump of the page, or nullopt.
GW_EXPORT std::optional<std::string> GWCopyPageDump(const gw::plist::Value& pageContent,
                                                    const gw::plist::Value& pageMeta);
// The verdict on a page: {"WFFilterWantsToBlock": false} for a URL on the user's white list,
// {"WFFilterWantsToBlock": true} for one on the black list (the white list wins), else the filter
// service's dictionary; a null value when there is no verdict.
GW_EXPORT gw::plist::Value GWCopyContentEvaluation(const gw::plist::Value& pageContent,
                                                   const gw::plist::Value& pageMeta);
