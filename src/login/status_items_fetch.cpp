// GWGetStatusItems: the daemon's status items for the calling user, as it archived them.
#include <gatewise/archive.h>
#include <gatewise/ipc.h>
#include <gatewise/log.h>
#include <gatewise/status.h>

#include <vector>

namespace gw {
namespace {

constexpr mach_msg_timeout_t kGetStatusItemsTimeoutMs = 1000;

}  // namespace

plist::ArrayRef GWGetStatusItems() {
  return returningOnException(__func__, __LINE__, plist::Array::make(), [] {
    mach_port_t port = 0;
    if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS || port == 0)
      return plist::ArrayRef();
    vm_offset_t region = 0;
    mach_msg_type_number_t count = 0;
    kern_return_t status = _GWMIGGetStatusItems(port, kGetStatusItemsTimeoutMs, &region, &count);
    if (status != KERN_SUCCESS || count == 0) {
      if (status != KERN_SUCCESS) GW_LOG(1, "_GWMIGGetStatusItems failed with error %d.", status);
      if (region) vm_deallocate(mach_task_self(), region, count);
      return plist::Array::make();
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(region);
    std::vector<std::uint8_t> archive(bytes, bytes + count);
    vm_deallocate(mach_task_self(), region, count);
    plist::Value root = archive::unarchiveObjectWithData(archive);
    if (!root.isArray()) {
      // Only the fact: a hostile graph's description could be far larger than the archive.
      if (!root.isNull()) GW_LOG(0, "*** Status items are not an array.");
      return plist::Array::make();
    }
    return root.array();
  });
}

}  // namespace gw
