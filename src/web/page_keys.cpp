// The page-description keys and the content filter's process-wide state.
#include <gatewise/web.h>

const char kWFUsernameKey[] = "WFUsernameKey";
const char kWFPageTitleKey[] = "WFPageTitle";
const char kWFDebugPageKey[] = "WFDebugPage";
const char kWFDebugMessageKey[] = "WFDebugMessage";
const char kWFFilterRestrictedScoreKey[] = "WFFilterRestrictedScoreKey";
const char kWFFilterDescriptionKey[] = "WFFilterDescriptionKey";
const char kWFFilterWantsToBlockKey[] = "WFFilterWantsToBlock";
const char kWFURLKey[] = "WFURL";

gw::plist::Value gUserName;
gw::plist::Value gWebWhiteList;
gw::plist::Value gWebBlackList;
