// Daemon messaging: the routine stubs, and the GWUtilities operations built on them.
//
// Every routine of the daemon ("com.morvane.gatewise") and of the web-content filter
// ("com.morvane.webfilter") is a C function: the destination port (from bootstrap_look_up), the
// time-out in milliseconds (ignored by the routines sent without one), the request fields in
// order (an inline array as pointer and count, at most 1024 bytes; an out-of-line region as address
// and size, which stays the caller's), then pointers for the reply's out fields. The result is 0, a
// transport status (0x1000xxxx), a reply check status (-300 wrong shape, -301 wrong id, -307 inline
// array too long, -308 server died) or the daemon's own return code; out fields are written only
// on success. A returned region belongs to the caller, who releases it with vm_deallocate().
//
// Any thread may call any routine at any time: each call uses its own connection and the calling
// thread's reply port, so concurrent calls never see each other's replies.
#pragma once

#include <gatewise/export.h>
#include <gatewise/mach.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef mach_msg_timeout_t gw_timeout_t;

// 5000: one-way, time-out.
GW_EXPORT kern_return_t _GWMIGLumewayVisitedPage(mach_port_t server, gw_timeout_t timeout,
                                                 vm_offset_t page, mach_msg_type_number_t pageCnt,
                                                 uint32_t uid, const char* other,
                                                 mach_msg_type_number_t otherCnt);
// 5001: answers with its return code only (36 bytes is also its success form).
GW_EXPORT kern_return_t _GWMIGLumewayWriteBookmarks(
    mach_port_t server, gw_timeout_t timeout, vm_offset_t first, mach_msg_type_number_t firstCnt,
    vm_offset_t second, mach_msg_type_number_t secondCnt, uint32_t uid, const char* userName,
    mach_msg_type_number_t userNameCnt);
// 5002: returns a property list.
GW_EXPORT kern_return_t _GWMIGLumewayReadExistingBookmarks(
    mach_port_t server, gw_timeout_t timeout, vm_offset_t credentials,
    mach_msg_type_number_t credentialsCnt, uint32_t uid, const char* userName,
    mach_msg_type_number_t userNameCnt, vm_offset_t* data, mach_msg_type_number_t* dataCnt);
// 5003..5007: one-way, time-out, one region.
GW_EXPORT kern_return_t _GWMIGContentFilterPageWasBlocked(mach_port_t server, gw_timeout_t timeout,
                                                          vm_offset_t data,
                                                          mach_msg_type_number_t dataCnt);
GW_EXPORT kern_return_t _GWMIGContentFilterPageWasVisited(mach_port_t server, gw_timeout_t timeout,
                                                          vm_offset_t data,
                                                          mach_msg_type_number_t dataCnt);
GW_EXPORT kern_return_t _GWMIGOverrideWebBlock(mach_port_t server, gw_timeout_t timeout,
                                               vm_offset_t data, mach_msg_type_number_t dataCnt);
GW_EXPORT kern_return_t _GWMIGMailAddContactsToWhiteList(mach_port_t server, gw_timeout_t timeout,
                                                         vm_offset_t data,
                                                         mach_msg_type_number_t dataCnt);
GW_EXPORT kern_return_t _GWMIGMailRemoveContactFromWhiteList(mach_port_t server,
                                                             gw_timeout_t timeout, vm_offset_t data,
                                                             mach_msg_type_number_t dataCnt);
// 5008
GW_EXPORT kern_return_t _GWMIGParletSaveChatLog(mach_port_t server, gw_timeout_t timeout,
                                                vm_offset_t data, mach_msg_type_number_t dataCnt,
                                                int32_t value);
// 5009
GW_EXPORT kern_return_t _GWMIGHasAppLaunchRestrictions(mach_port_t server, gw_timeout_t timeout,
                                                       int32_t value, int32_t* result);
// 5010
GW_EXPORT kern_return_t _GWMIGAppCanLaunch(mach_port_t server, gw_timeout_t timeout,
                                           const char* path, mach_msg_type_number_t pathCnt,
                                           int32_t first, int32_t second, int32_t* result,
                                           int32_t* reason);
// 5011
GW_EXPORT kern_return_t _GWMIGNotifyKernelOfDetachedSignature(mach_port_t server,
                                                              gw_timeout_t timeout,
                                                              const char* path,
                                                              mach_msg_type_number_t pathCnt,
                                                              int32_t value, int32_t* result);
// 5012: the path first, the 64-bit field last.
GW_EXPORT kern_return_t _GWMIGAppCanSublaunch(mach_port_t server, gw_timeout_t timeout,
                                              const char* path, mach_msg_type_number_t pathCnt,
                                              int32_t first, int32_t second, int64_t third,
                                              int32_t* result);
// 5013
GW_EXPORT kern_return_t _GWMIGAppLaunchBlocked(mach_port_t server, gw_timeout_t timeout,
                                               const char* path, mach_msg_type_number_t pathCnt,
                                               int32_t first, int32_t second);
// 5014: the path last, after the 64-bit field.
GW_EXPORT kern_return_t _GWMIGAppSublaunchBlocked(mach_port_t server, gw_timeout_t timeout,
                                                  int32_t first, int32_t second, int64_t third,
                                                  const char* path, mach_msg_type_number_t pathCnt);
// 5015: a bare header; returns a keyed archive.
GW_EXPORT kern_return_t _GWMIGGetStatusItems(mach_port_t server, gw_timeout_t timeout,
                                             vm_offset_t* data, mach_msg_type_number_t* dataCnt);
// 5016
GW_EXPORT kern_return_t _GWMIGUserCanLogin(mach_port_t server, gw_timeout_t timeout, uint32_t uid,
                                           int32_t* seconds, int32_t* reason);
// 5017: blocking send. agent is a descriptor of this process, passed to the daemon; it goes first
// on the wire although it is the last argument.
GW_EXPORT kern_return_t _GWMIGRegisterUserAgent(mach_port_t server, gw_timeout_t timeout,
                                                int32_t value, mach_port_t agent);
// 5018..5021: blocking sends of a uid; 5022: a bare header.
GW_EXPORT kern_return_t _GWMIGReadOverrides(mach_port_t server, gw_timeout_t timeout, uint32_t uid);
GW_EXPORT kern_return_t _GWMIGResetUsageData(mach_port_t server, gw_timeout_t timeout,
                                             uint32_t uid);
GW_EXPORT kern_return_t _GWMIGReadSettings(mach_port_t server, gw_timeout_t timeout, uint32_t uid);
GW_EXPORT kern_return_t _GWMIGSaveUsageData(mach_port_t server, gw_timeout_t timeout, uint32_t uid);
GW_EXPORT kern_return_t _GWMIGListeningStatusChanged(mach_port_t server, gw_timeout_t timeout);
// 5023, 5024: one-way, time-out.
GW_EXPORT kern_return_t _GWMIGCreateMOCProxyForUser(mach_port_t server, gw_timeout_t timeout,
                                                    vm_offset_t data,
                                                    mach_msg_type_number_t dataCnt,
                                                    const char* userName,
                                                    mach_msg_type_number_t userNameCnt);
GW_EXPORT kern_return_t _GWMIGReleaseMOCProxyForUser(mach_port_t server, gw_timeout_t timeout,
                                                     vm_offset_t data,
                                                     mach_msg_type_number_t dataCnt,
                                                     const char* userName,
                                                     mach_msg_type_number_t userNameCnt);
// 5025: returns a keyed archive.
GW_EXPORT kern_return_t _GWMIGExecuteRequestForUser(
    mach_port_t server, gw_timeout_t timeout, vm_offset_t first, mach_msg_type_number_t firstCnt,
    vm_offset_t second, mach_msg_type_number_t secondCnt, vm_offset_t third,
    mach_msg_type_number_t thirdCnt, const char* userName, mach_msg_type_number_t userNameCnt,
    vm_offset_t* data, mach_msg_type_number_t* dataCnt);

// Web-content filter, 5000 and 5001 of its own numbering; both return an XML property list.
GW_EXPORT kern_return_t _WFMIGEvalutePageContent(mach_port_t server, gw_timeout_t timeout,
                                                 vm_offset_t first, mach_msg_type_number_t firstCnt,
                                                 vm_offset_t second,
                                                 mach_msg_type_number_t secondCnt,
                                                 vm_offset_t* data,
                                                 mach_msg_type_number_t* dataCnt);
GW_EXPORT kern_return_t _WFMIGGetPageDump(mach_port_t server, gw_timeout_t timeout,
                                          vm_offset_t first, mach_msg_type_number_t firstCnt,
                                          vm_offset_t second, mach_msg_type_number_t secondCnt,
                                          vm_offset_t* data, mach_msg_type_number_t* dataCnt);

#ifdef __cplusplus
}  // extern "C"

// The daemon's bootstrap name.
inline constexpr const char kGWDaemonServiceName[] = "com.morvane.gatewise";
inline constexpr const char kGWWebFilterServiceName[] = "com.morvane.webfilter";

// Class operations of GWUtilities that wrap the five simple uid messages. Each looks the daemon up
// afresh and sends its message without a time-out, returning the send status. Without a daemon it
// logs "<selector> daemon is not running." at level 0, sends nothing and returns the look-up's
// status (1102). The namespace is reopened by other headers for the class's other operations.
namespace GWUtilities {
GW_EXPORT kern_return_t fcdReadOverridesFor(uid_t uid);
GW_EXPORT kern_return_t fcdReadSettingsFor(uid_t uid);
GW_EXPORT kern_return_t fcdSaveUsageDataFor(uid_t uid);
GW_EXPORT kern_return_t fcdResetUsageDataFor(uid_t uid);
GW_EXPORT kern_return_t fcdListeningStatusChanged();
}  // namespace GWUtilities
#endif
