// Detached signatures: finding one in the managed white list, telling whether a program needs
// one, and announcing one to the daemon.
#include <gatewise/bundle_info.h>
#include <gatewise/core.h>
#include <gatewise/ipc.h>
#include <gatewise/log.h>

#include <cstring>
#include <mutex>

#include "apps/signing/signing_support.h"
#include "platform/codesign/signature_store.h"

namespace {

constexpr gw_timeout_t kNotifyTimeoutMs = 5000;
constexpr char kApplicationAccessDomain[] = "com.morvane.applicationaccess.new";

}  // namespace

std::optional<gw::plist::Data> GWCopyDetachedSignature(const std::string& path,
                                                       const std::string& userName) try {
  std::optional<std::string> bundleID = GWCopyBundleIDFudgingIfNecessary(path, std::nullopt);
  if (!bundleID) {
    GW_LOG(0, "*** GWCopyDetachedSignature: couldn't get bundle ID for path %@", path);
    return std::nullopt;
  }
  std::optional<std::string> file =
      GWManagedPreferencesFileForUser(userName, kApplicationAccessDomain);
  if (!file) return std::nullopt;
  gw::plist::ReadResult settings = gw::plist::readPropertyListFile(*file);
  if (!settings || !settings.value->isDictionary()) return std::nullopt;
  const gw::plist::Value& whiteList = settings.value->dictionary()->get("whiteList");
  if (!whiteList.isArray()) return std::nullopt;
  const gw::plist::ArrayRef& entries = whiteList.array();
  for (std::size_t i = 0; i < entries->size(); ++i) {
    const gw::plist::Value& entry = (*entries)[i];
    if (!entry.isDictionary()) continue;
    const gw::plist::Value& entryID = entry.dictionary()->get("bundleID");
    if (!entryID.isString() || entryID.string() != *bundleID) continue;
    const gw::plist::Value& signature = entry.dictionary()->get("detachedSignature");
    if (!signature.isData()) return std::nullopt;
    return signature.data();
  }
  return std::nullopt;
} catch (const std::exception& e) {
  GW_LOG_CAUGHT(e);
  return std::nullopt;
}

bool CodeSignWillGenerateDetachedSignature(const std::string& path) try {
  std::string error;
  switch (gw::codesign::volumeStateOf(path, &error)) {
    case gw::codesign::VolumeState::Locked:
      return true;
    case gw::codesign::VolumeState::Unknown:
      // Logged under the name of the volume check, as that is where the look-up fails.
      if (gw::logLevelEnabled(0))
        gw::writeLogLine("IsPathOnWritableVolume", __LINE__,
                         gw::format("*** FSGetCatalogInfo returned error %d", -1));
      return false;
    case gw::codesign::VolumeState::Writable:
      break;
  }
  return false;
} catch (const std::exception& e) {
  GW_LOG_CAUGHT(e);
  return false;
}

int32_t GWNotifyKernelOfDetachedSignature(const char* path, int32_t value) try {
  if (path == nullptr) return -50;
  std::lock_guard<gw::SpinLock> hold(gGWALRLock);
  mach_port_t port = 0;
  if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS || port == 0) {
    GW_LOG(0, "*** tud port was 0, allowing app");
    return -2;
  }
  GW_LOG(2, "Sending mach message to tud at port %d", int(port));
  std::int32_t result = 0;
  kern_return_t status = _GWMIGNotifyKernelOfDetachedSignature(
      port, kNotifyTimeoutMs, path, mach_msg_type_number_t(std::strlen(path)), value, &result);
  if (status != KERN_SUCCESS) {
    GW_LOG(0, "*** _GWMIGNotifyKernelOfDetachedSignature failed with error %d.", status);
    result = status;
  }
  GW_LOG(3, "_GWMIGNotifyKernelOfDetachedSignature returned result: %d for path: %s", result, path);
  return result;
} catch (const std::exception& e) {
  GW_LOG_CAUGHT(e);
  return -1;
}
