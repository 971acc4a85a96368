// GWUserEventsManager: the client of the daemon's per-user event store proxies.
#include <gatewise/archive.h>
#include <gatewise/core.h>
#include <gatewise/events.h>
#include <gatewise/ipc.h>
#include <gatewise/log.h>
#include <gatewise/mach.h>

#include <cstring>

namespace gw {
namespace {

constexpr gw_timeout_t kTimeout = 1000;

mach_port_t lookUpDaemon() {
  mach_port_t port = 0;
  if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS) return 0;
  return port;
}

vm_offset_t address(const void* bytes) { return vm_offset_t(reinterpret_cast<uintptr_t>(bytes)); }

}  // namespace

GWUserEventsManagerRef GWUserEventsManager::initWithUserName(
    std::optional<std::string> userName, const GWAuthorizationRef& authorization) {
  GWUserEventsManagerRef manager(new GWUserEventsManager());
  mach_port_t port = lookUpDaemon();
  if (port == 0) {
    GW_LOG(1, "tutelad is not running.");
    return nullptr;
  }
  if (!userName) userName = GetUserShortNameForUID(::getuid());
  // A failure after the look-up drops the connection it made.
  auto failed = [port] {
    mach_port_deallocate(mach_task_self(), port);
    return nullptr;
  };
  if (!userName || userName->empty()) {
    GW_LOG(0, "*** couldn't create user name string");
    return failed();
  }
  manager->_userName = *userName;
  GWAuthorizationExternalForm form{};
  std::int32_t status = authorization ? authorization->makeExternalForm(&form) : -60008;
  if (status != 0) {
    GW_LOG(0, "*** Auth serialization failed with err %d", status);
    return failed();
  }
  manager->_authData.assign(form.begin(), form.end());
  if (manager->_authData.size() != form.size()) {
    GW_LOG(0, "*** Auth data was nil");
    return failed();
  }
  kern_return_t result = _GWMIGCreateMOCProxyForUser(
      port, kTimeout, address(manager->_authData.data()),
      mach_msg_type_number_t(manager->_authData.size()), manager->_userName.data(),
      mach_msg_type_number_t(manager->_userName.size()));
  if (result != KERN_SUCCESS) {
    GW_LOG(0, "*** _GWMIGCreateMOCProxyForUser returned error: %d", result);
    return nullptr;
  }
  manager->_registeredWithServer = true;
  return manager;
}

GWUserEventsManager::~GWUserEventsManager() {
  if (!_registeredWithServer) return;
  mach_port_t port = lookUpDaemon();
  if (port == 0) return;
  kern_return_t result = _GWMIGReleaseMOCProxyForUser(
      port, kTimeout, address(_authData.data()), mach_msg_type_number_t(_authData.size()),
      _userName.data(), mach_msg_type_number_t(_userName.size()));
  if (result != KERN_SUCCESS) {
    GW_LOG(0, "*** _GWMIGReleaseMOCProxyForUser returned error: %d", result);
  }
}

plist::Value GWUserEventsManager::executeFetchRequest(const GWFetchRequestRef& request,
                                                      const std::string& entityName) {
  GW_LOG(2, "Enter");
  std::vector<std::uint8_t> query = request
                                        ? archive::archivedDataWithRootObject(plist::Value(request))
                                        : std::vector<std::uint8_t>();
  if (query.empty()) {
    GW_LOG(0, "*** Couldn't create query data");
    return {};
  }
  if (_userName.empty()) {
    GW_LOG(0, "*** couldn't create user name string");
    return {};
  }
  if (entityName.empty()) {
    GW_LOG(0, "*** couldn't create entity name string");
    return {};
  }
  mach_port_t port = lookUpDaemon();
  if (port == 0) {
    GW_LOG(0, "*** tutelad is not running.");
    return {};
  }
  vm_offset_t buffer = 0;
  mach_msg_type_number_t length = 0;
  kern_return_t result = _GWMIGExecuteRequestForUser(
      port, kTimeout, address(entityName.data()), mach_msg_type_number_t(entityName.size()),
      address(query.data()), mach_msg_type_number_t(query.size()), address(_authData.data()),
      mach_msg_type_number_t(_authData.size()), _userName.data(),
      mach_msg_type_number_t(_userName.size()), &buffer, &length);
  // A failed exchange leaves no buffer, so it reads as an empty response.
  if (buffer == 0 || length == 0) {
    GW_LOG(0, "*** response was empty");
    return {};
  }
  std::vector<std::uint8_t> response;
  try {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(buffer);
    response.assign(bytes, bytes + length);
  } catch (const std::bad_alloc&) {
    response.clear();
  }
  vm_deallocate(mach_task_self(), buffer, length);
  if (result != KERN_SUCCESS) {
    GW_LOG(0, "*** _GWMIGExecuteRequestForUser returned error: %d", result);
    return {};
  }
  if (response.empty()) {
    GW_LOG(0, "*** responseData was nil");
    return {};
  }
  plist::Value decoded = archive::unarchiveObjectWithData(response);
  if (decoded.isNull()) {
    GW_LOG(0, "*** result was nil");
    return {};
  }
  if (!decoded.isArray()) {
    GW_LOG(0, "*** _GWMIGExecuteRequestForUser returned invalid object type: %@",
           archive::className(decoded));
    return {};
  }
  GW_LOG(2, "_GWMIGExecuteRequestForUser returned %d items", int(decoded.array()->size()));
  return decoded;
}

}  // namespace gw
