// The exported routine stubs: each names its catalogue entry (by its own function name) and passes
// its arguments through in order. Layout, checks and byte order live in the catalogue and codec.
#include <gatewise/ipc.h>

#include "ipc/client_call.h"

namespace {

using gw::ipc::Argument;
using gw::ipc::callRoutine;
using gw::ipc::OutPointers;

#define GW_ROUTINE() static const gw::ipc::Routine& routine = gw::ipc::routine(__func__)

Argument integer(std::int64_t v) { return {v, nullptr, 0}; }
Argument region(vm_offset_t address, mach_msg_type_number_t size) {
  return {0, reinterpret_cast<const void*>(address), size};
}
Argument bytes(const char* p, mach_msg_type_number_t count) { return {0, p, count}; }
OutPointers scalars(std::int32_t* a, std::int32_t* b = nullptr) {
  OutPointers out;
  out.scalars[0] = a;
  out.scalars[1] = b;
  return out;
}
OutPointers data(vm_offset_t* address, mach_msg_type_number_t* size) {
  OutPointers out;
  out.data = address;
  out.dataCount = size;
  return out;
}

}  // namespace

extern "C" {

kern_return_t _GWMIGLumewayVisitedPage(mach_port_t server, gw_timeout_t timeout, vm_offset_t page,
                                       mach_msg_type_number_t pageCnt, uint32_t uid,
                                       const char* other, mach_msg_type_number_t otherCnt) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout,
                     {region(page, pageCnt), integer(uid), bytes(other, otherCnt)});
}

kern_return_t _GWMIGLumewayWriteBookmarks(mach_port_t server, gw_timeout_t timeout,
                                          vm_offset_t first, mach_msg_type_number_t firstCnt,
                                          vm_offset_t second, mach_msg_type_number_t secondCnt,
                                          uint32_t uid, const char* userName,
                                          mach_msg_type_number_t userNameCnt) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout,
                     {region(first, firstCnt), region(second, secondCnt), integer(uid),
                      bytes(userName, userNameCnt)});
}

kern_return_t _GWMIGLumewayReadExistingBookmarks(mach_port_t server, gw_timeout_t timeout,
                                                 vm_offset_t credentials,
                                                 mach_msg_type_number_t credentialsCnt,
                                                 uint32_t uid, const char* userName,
                                                 mach_msg_type_number_t userNameCnt,
                                                 vm_offset_t* out, mach_msg_type_number_t* outCnt) {
  GW_ROUTINE();
  return callRoutine(
      routine, server, timeout,
      {region(credentials, credentialsCnt), integer(uid), bytes(userName, userNameCnt)},
      data(out, outCnt));
}

#define GW_ONE_REGION_ROUTINE(name)                                              \
  kern_return_t name(mach_port_t server, gw_timeout_t timeout, vm_offset_t data, \
                     mach_msg_type_number_t dataCnt) {                           \
    GW_ROUTINE();                                                                \
    return callRoutine(routine, server, timeout, {region(data, dataCnt)});       \
  }
GW_ONE_REGION_ROUTINE(_GWMIGContentFilterPageWasBlocked)
GW_ONE_REGION_ROUTINE(_GWMIGContentFilterPageWasVisited)
GW_ONE_REGION_ROUTINE(_GWMIGOverrideWebBlock)
GW_ONE_REGION_ROUTINE(_GWMIGMailAddContactsToWhiteList)
GW_ONE_REGION_ROUTINE(_GWMIGMailRemoveContactFromWhiteList)

kern_return_t _GWMIGParletSaveChatLog(mach_port_t server, gw_timeout_t timeout, vm_offset_t log,
                                      mach_msg_type_number_t logCnt, int32_t value) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout, {region(log, logCnt), integer(value)});
}

kern_return_t _GWMIGHasAppLaunchRestrictions(mach_port_t server, gw_timeout_t timeout,
                                             int32_t value, int32_t* result) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout, {integer(value)}, scalars(result));
}

kern_return_t _GWMIGAppCanLaunch(mach_port_t server, gw_timeout_t timeout, const char* path,
                                 mach_msg_type_number_t pathCnt, int32_t first, int32_t second,
                                 int32_t* result, int32_t* reason) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout,
                     {bytes(path, pathCnt), integer(first), integer(second)},
                     scalars(result, reason));
}

kern_return_t _GWMIGNotifyKernelOfDetachedSignature(mach_port_t server, gw_timeout_t timeout,
                                                    const char* path,
                                                    mach_msg_type_number_t pathCnt, int32_t value,
                                                    int32_t* result) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout, {bytes(path, pathCnt), integer(value)},
                     scalars(result));
}

kern_return_t _GWMIGAppCanSublaunch(mach_port_t server, gw_timeout_t timeout, const char* path,
                                    mach_msg_type_number_t pathCnt, int32_t first, int32_t second,
                                    int64_t third, int32_t* result) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout,
                     {bytes(path, pathCnt), integer(first), integer(second), integer(third)},
                     scalars(result));
}

kern_return_t _GWMIGAppLaunchBlocked(mach_port_t server, gw_timeout_t timeout, const char* path,
                                     mach_msg_type_number_t pathCnt, int32_t first,
                                     int32_t second) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout,
                     {bytes(path, pathCnt), integer(first), integer(second)});
}

kern_return_t _GWMIGAppSublaunchBlocked(mach_port_t server, gw_timeout_t timeout, int32_t first,
                                        int32_t second, int64_t third, const char* path,
                                        mach_msg_type_number_t pathCnt) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout,
                     {integer(first), integer(second), integer(third), bytes(path, pathCnt)});
}

kern_return_t _GWMIGGetStatusItems(mach_port_t server, gw_timeout_t timeout, vm_offset_t* out,
                                   mach_msg_type_number_t* outCnt) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout, {}, data(out, outCnt));
}

kern_return_t _GWMIGUserCanLogin(mach_port_t server, gw_timeout_t timeout, uint32_t uid,
                                 int32_t* seconds, int32_t* reason) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout, {integer(uid)}, scalars(seconds, reason));
}

kern_return_t _GWMIGRegisterUserAgent(mach_port_t server, gw_timeout_t timeout, int32_t value,
                                      mach_port_t agent) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout, {integer(value), integer(agent)});
}

#define GW_UID_ROUTINE(name)                                                   \
  kern_return_t name(mach_port_t server, gw_timeout_t timeout, uint32_t uid) { \
    GW_ROUTINE();                                                              \
    return callRoutine(routine, server, timeout, {integer(uid)});              \
  }
GW_UID_ROUTINE(_GWMIGReadOverrides)
GW_UID_ROUTINE(_GWMIGResetUsageData)
GW_UID_ROUTINE(_GWMIGReadSettings)
GW_UID_ROUTINE(_GWMIGSaveUsageData)

kern_return_t _GWMIGListeningStatusChanged(mach_port_t server, gw_timeout_t timeout) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout, {});
}

kern_return_t _GWMIGCreateMOCProxyForUser(mach_port_t server, gw_timeout_t timeout,
                                          vm_offset_t request, mach_msg_type_number_t requestCnt,
                                          const char* userName,
                                          mach_msg_type_number_t userNameCnt) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout,
                     {region(request, requestCnt), bytes(userName, userNameCnt)});
}

kern_return_t _GWMIGReleaseMOCProxyForUser(mach_port_t server, gw_timeout_t timeout,
                                           vm_offset_t request, mach_msg_type_number_t requestCnt,
                                           const char* userName,
                                           mach_msg_type_number_t userNameCnt) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout,
                     {region(request, requestCnt), bytes(userName, userNameCnt)});
}

kern_return_t _GWMIGExecuteRequestForUser(mach_port_t server, gw_timeout_t timeout,
                                          vm_offset_t first, mach_msg_type_number_t firstCnt,
                                          vm_offset_t second, mach_msg_type_number_t secondCnt,
                                          vm_offset_t third, mach_msg_type_number_t thirdCnt,
                                          const char* userName, mach_msg_type_number_t userNameCnt,
                                          vm_offset_t* out, mach_msg_type_number_t* outCnt) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout,
                     {region(first, firstCnt), region(second, secondCnt), region(third, thirdCnt),
                      bytes(userName, userNameCnt)},
                     data(out, outCnt));
}

kern_return_t _WFMIGEvalutePageContent(mach_port_t server, gw_timeout_t timeout, vm_offset_t first,
                                       mach_msg_type_number_t firstCnt, vm_offset_t second,
                                       mach_msg_type_number_t secondCnt, vm_offset_t* out,
                                       mach_msg_type_number_t* outCnt) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout, {region(first, firstCnt), region(second, secondCnt)},
                     data(out, outCnt));
}

kern_return_t _WFMIGGetPageDump(mach_port_t server, gw_timeout_t timeout, vm_offset_t first,
                                mach_msg_type_number_t firstCnt, vm_offset_t second,
                                mach_msg_type_number_t secondCnt, vm_offset_t* out,
                                mach_msg_type_number_t* outCnt) {
  GW_ROUTINE();
  return callRoutine(routine, server, timeout, {region(first, firstCnt), region(second, secondCnt)},
                     data(out, outCnt));
}

}  // extern "C"
