#include "ipc/routine_catalogue.h"

namespace gw::ipc {
namespace {

using enum FieldType;
using enum RoutineKind;
using enum ReplyShape;
using enum Service;

constexpr std::span<const Field> kNone{};
constexpr Field kData[] = {{"data", OutOfLine}};
constexpr Field kUid[] = {{"uid", Int32}};
constexpr Field kValue[] = {{"value", Int32}};
constexpr Field kDataValue[] = {{"data", OutOfLine}, {"value", Int32}};
constexpr Field kVisitedPage[] = {{"page", OutOfLine}, {"uid", Int32}, {"other", Inline}};
constexpr Field kWriteBookmarks[] = {
    {"first", OutOfLine}, {"second", OutOfLine}, {"uid", Int32}, {"userName", Inline}};
constexpr Field kReadBookmarks[] = {
    {"credentials", OutOfLine}, {"uid", Int32}, {"userName", Inline}};
constexpr Field kPathTwoInts[] = {{"path", Inline}, {"first", Int32}, {"second", Int32}};
constexpr Field kPathValue[] = {{"path", Inline}, {"value", Int32}};
constexpr Field kCanSublaunch[] = {
    {"path", Inline}, {"first", Int32}, {"second", Int32}, {"third", Int64}};
// The path goes last here, after the 64-bit field, unlike its two-way sibling.
constexpr Field kSublaunchBlocked[] = {
    {"first", Int32}, {"second", Int32}, {"third", Int64}, {"path", Inline}};
// The integer is the first argument; on the wire the port's descriptor still comes first.
constexpr Field kRegisterAgent[] = {{"value", Int32}, {"agent", Port}};
constexpr Field kDataUserName[] = {{"data", OutOfLine}, {"userName", Inline}};
constexpr Field kExecuteRequest[] = {
    {"first", OutOfLine}, {"second", OutOfLine}, {"third", OutOfLine}, {"userName", Inline}};
constexpr Field kTwoRegions[] = {{"first", OutOfLine}, {"second", OutOfLine}};

constexpr Field kResult[] = {{"result", Int32}};
constexpr Field kResultReason[] = {{"result", Int32}, {"reason", Int32}};
constexpr Field kSecondsReason[] = {{"seconds", Int32}, {"reason", Int32}};

constexpr Routine kRoutines[] = {
    {"_GWMIGLumewayVisitedPage", Daemon, 5000, OneWayTimed, kVisitedPage, None, kNone, 0, 1000},
    {"_GWMIGLumewayWriteBookmarks", Daemon, 5001, TwoWay, kWriteBookmarks, Plain, kNone, 44, 1000},
    {"_GWMIGLumewayReadExistingBookmarks", Daemon, 5002, TwoWay, kReadBookmarks, Data, kData, 64,
     1000},
    {"_GWMIGContentFilterPageWasBlocked", Daemon, 5003, OneWayTimed, kData, None, kNone, 0, 1000},
    {"_GWMIGContentFilterPageWasVisited", Daemon, 5004, OneWayTimed, kData, None, kNone, 0, 0},
    {"_GWMIGOverrideWebBlock", Daemon, 5005, OneWayTimed, kData, None, kNone, 0, 0},
    {"_GWMIGMailAddContactsToWhiteList", Daemon, 5006, OneWayTimed, kData, None, kNone, 0, 1000},
    {"_GWMIGMailRemoveContactFromWhiteList", Daemon, 5007, OneWayTimed, kData, None, kNone, 0,
     1000},
    {"_GWMIGParletSaveChatLog", Daemon, 5008, OneWayTimed, kDataValue, None, kNone, 0, 1000},
    {"_GWMIGHasAppLaunchRestrictions", Daemon, 5009, TwoWay, kValue, Plain, kResult, 48, 0},
    {"_GWMIGAppCanLaunch", Daemon, 5010, TwoWay, kPathTwoInts, Plain, kResultReason, 52, 5000},
    {"_GWMIGNotifyKernelOfDetachedSignature", Daemon, 5011, TwoWay, kPathValue, Plain, kResult, 48,
     5000},
    {"_GWMIGAppCanSublaunch", Daemon, 5012, TwoWay, kCanSublaunch, Plain, kResult, 48, 0},
    {"_GWMIGAppLaunchBlocked", Daemon, 5013, OneWayTimed, kPathTwoInts, None, kNone, 0, 1000},
    {"_GWMIGAppSublaunchBlocked", Daemon, 5014, OneWayTimed, kSublaunchBlocked, None, kNone, 0, 0},
    {"_GWMIGGetStatusItems", Daemon, 5015, TwoWay, kNone, Data, kData, 64, 1000},
    {"_GWMIGUserCanLogin", Daemon, 5016, TwoWay, kUid, Plain, kSecondsReason, 52, 5000},
    {"_GWMIGRegisterUserAgent", Daemon, 5017, OneWayBlocking, kRegisterAgent, None, kNone, 0, 0},
    {"_GWMIGReadOverrides", Daemon, 5018, OneWayBlocking, kUid, None, kNone, 0, 0},
    {"_GWMIGResetUsageData", Daemon, 5019, OneWayBlocking, kUid, None, kNone, 0, 0},
    {"_GWMIGReadSettings", Daemon, 5020, OneWayBlocking, kUid, None, kNone, 0, 0},
    {"_GWMIGSaveUsageData", Daemon, 5021, OneWayBlocking, kUid, None, kNone, 0, 0},
    {"_GWMIGListeningStatusChanged", Daemon, 5022, OneWayBlocking, kNone, None, kNone, 0, 0},
    {"_GWMIGCreateMOCProxyForUser", Daemon, 5023, OneWayTimed, kDataUserName, None, kNone, 0, 1000},
    {"_GWMIGReleaseMOCProxyForUser", Daemon, 5024, OneWayTimed, kDataUserName, None, kNone, 0,
     1000},
    {"_GWMIGExecuteRequestForUser", Daemon, 5025, TwoWay, kExecuteRequest, Data, kData, 64, 1000},
    // The first name lacks an "a" ("Evalute"): it is the exported symbol and stays so.
    {"_WFMIGEvalutePageContent", WebFilter, 5000, TwoWay, kTwoRegions, Data, kData, 64, 1000},
    {"_WFMIGGetPageDump", WebFilter, 5001, TwoWay, kTwoRegions, Data, kData, 64, 1000},
};

}  // namespace

std::span<const Routine> allRoutines() { return kRoutines; }

const Routine* routineNamed(std::string_view name) {
  for (const Routine& r : kRoutines) {
    if (r.name == name) return &r;
  }
  return nullptr;
}

const Routine* routineWithId(Service service, std::int32_t id) {
  for (const Routine& r : kRoutines) {
    if (r.service == service && r.id == id) return &r;
  }
  return nullptr;
}

std::string_view serviceName(Service service) {
  return service == Service::Daemon ? "com.morvane.gatewise" : "com.morvane.webfilter";
}

RequestLayout requestLayout(const Routine& routine) {
  RequestLayout layout;
  std::uint32_t body = 0;
  for (const Field& f : routine.request) {
    switch (f.type) {
      case Int32:
      case Inline:
        body += 4;
        break;
      case Int64:
        body += 8;
        break;
      case OutOfLine:
        ++layout.outOfLineCount;
        body += 4;  // its size, after the inline part
        break;
      case Port:
        ++layout.portCount;
        break;
    }
  }
  layout.complex = layout.outOfLineCount + layout.portCount > 0;
  layout.hasNdr = !routine.request.empty();
  layout.fixedSize = 24 + (layout.complex ? 4 : 0) + 16 * layout.outOfLineCount +
                     12 * layout.portCount + (layout.hasNdr ? 8 : 0) + body;
  return layout;
}

std::uint32_t replySize(const Routine& routine) {
  switch (routine.reply) {
    case None:
      return 0;
    case Plain:
      return 36 + 4 * std::uint32_t(routine.replyOut.size());
    case Data:
      return 56;
  }
  return 0;
}

}  // namespace gw::ipc
