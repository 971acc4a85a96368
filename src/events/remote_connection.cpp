// The remote-connection vocabulary: each action's value is the constant's own name.
#include <gatewise/events.h>

#define GW_ACTION(name) GW_EXTERN_C const char name[] = #name;
GW_ACTION(kGWRemoteConnectionReadSettingsAction)
GW_ACTION(kGWRemoteConnectionGetMiscSettingsAction)
GW_ACTION(kGWRemoteConnectionGetAppListAction)
GW_ACTION(kGWRemoteConnectionUpdateAppWhiteList)
GW_ACTION(kGWRemoteConnectionCreateMOCProxy)
GW_ACTION(kGWRemoteConnectionDisposeMOCProxy)
GW_ACTION(kGWRemoteConnectionExecuteQuery)
GW_ACTION(kGWRemoteConnectionSetPrintAdmin)
#undef GW_ACTION

GW_EXTERN_C const char kGWRemoteConnectionUserNameKey[] = "userName";
GW_EXTERN_C const char kGWRemoteConnectionActionKey[] = "action";
GW_EXTERN_C const char kGWRemoteConnectionMessageIDKey[] = "msgID";
GW_EXTERN_C const char kGWRemoteConnectionNameKey[] = "name";
GW_EXTERN_C const char kGWRemoteConnectionPasswordKey[] = "password";
GW_EXTERN_C const char kGWRemoteConnectionBundleIDsKey[] = "bundleIDs";
GW_EXTERN_C const char kGWRemoteConnectionAppListKey[] = "appList";
GW_EXTERN_C const char kGWRemoteConnectionUIDKey[] = "uid";
GW_EXTERN_C const char kGWRemoteConnectionEntityNameKey[] = "entityName";
GW_EXTERN_C const char kGWRemoteConnectionQueryResultKey[] = "queryResult";
GW_EXTERN_C const char kGWRemoteConnectionQueryDataKey[] = "queryData";
GW_EXTERN_C const char kGWRemoteConnectionErrorStringKey[] = "errorString";
GW_EXTERN_C const char kGWRemoteConnectionIsPrintAdminFlag[] = "isPrintAdmin";
