// bootstrap_look_up, the port-name table, the per-thread reply port and region release.
#include "platform/mach/ports.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/mach/socket_io.h"

namespace gw::mach {
namespace {

// Service port names start here; reply port names live in their own range, so neither is ever
// mistaken for the other.
constexpr mach_port_t kFirstServicePort = 0x103;
constexpr mach_port_t kFirstReplyPort = 0x40000003;
constexpr std::size_t kMaxServiceNameLength = 127;

struct ServiceTable {
  std::mutex mutex;
  std::vector<std::string> paths;  // index i is port kFirstServicePort + 4 * i
};

ServiceTable& serviceTable() {
  static ServiceTable* table = new ServiceTable;  // never destroyed: used by exiting threads
  return *table;
}

mach_port_t portForPath(const std::string& path) {
  ServiceTable& table = serviceTable();
  std::lock_guard lock(table.mutex);
  for (std::size_t i = 0; i < table.paths.size(); ++i) {
    if (table.paths[i] == path) return mach_port_t(kFirstServicePort + 4 * i);
  }
  table.paths.push_back(path);
  return mach_port_t(kFirstServicePort + 4 * (table.paths.size() - 1));
}

struct LookUpConnection {
  mach_port_t port;
  UniqueFd fd;
};
thread_local std::vector<LookUpConnection> tLookUpConnections;

void keepLookUpConnection(mach_port_t port, UniqueFd fd) {
  for (LookUpConnection& c : tLookUpConnections) {
    if (c.port == port) {
      c.fd = std::move(fd);
      return;
    }
  }
  tLookUpConnections.push_back({port, std::move(fd)});
}

std::atomic<mach_port_t> gNextReplyPort{kFirstReplyPort};
thread_local mach_port_t tReplyPort = 0;

}  // namespace

std::string servicePathForPort(mach_port_t port) {
  if (port < kFirstServicePort || (port - kFirstServicePort) % 4 != 0) return {};
  std::size_t index = (port - kFirstServicePort) / 4;
  ServiceTable& table = serviceTable();
  std::lock_guard lock(table.mutex);
  return index < table.paths.size() ? table.paths[index] : std::string();
}

UniqueFd takeLookUpConnection(mach_port_t port) {
  for (std::size_t i = 0; i < tLookUpConnections.size(); ++i) {
    if (tLookUpConnections[i].port == port) {
      UniqueFd fd = std::move(tLookUpConnections[i].fd);
      tLookUpConnections.erase(tLookUpConnections.begin() + std::ptrdiff_t(i));
      return fd;
    }
  }
  return UniqueFd();
}

}  // namespace gw::mach

using namespace gw::mach;

extern "C" {

GW_EXPORT mach_port_t bootstrap_port = 0x107;

mach_port_t mach_task_self(void) { return 0x203; }

kern_return_t bootstrap_look_up(mach_port_t bp, const char* name, mach_port_t* port) {
  if (port) *port = 0;
  if (bp == 0 || bp != bootstrap_port) return MACH_SEND_INVALID_DEST;
  if (!name || !port || std::strlen(name) > kMaxServiceNameLength) {
    return BOOTSTRAP_UNKNOWN_SERVICE;
  }
  std::string path = serviceSocketPath(name);
  if (path.empty()) return BOOTSTRAP_UNKNOWN_SERVICE;
  UniqueFd fd;
  // A zero deadline: a listener whose queue is full still exists; the message itself will then
  // connect with its own time-out.
  IoStatus status = connectUnix(path, Deadline::afterMilliseconds(0), &fd);
  if (status == IoStatus::Refused || status == IoStatus::Failed) return BOOTSTRAP_UNKNOWN_SERVICE;
  *port = portForPath(path);
  if (fd) keepLookUpConnection(*port, std::move(fd));
  return KERN_SUCCESS;
}

kern_return_t mach_port_deallocate(mach_port_t, mach_port_name_t name) {
  takeLookUpConnection(name);  // closes it
  return KERN_SUCCESS;
}

mach_port_t mig_get_reply_port(void) {
  if (tReplyPort == 0) tReplyPort = gNextReplyPort.fetch_add(4, std::memory_order_relaxed);
  return tReplyPort;
}

void mig_put_reply_port(mach_port_t) {}

void mig_dealloc_reply_port(mach_port_t reply_port) {
  if (reply_port == tReplyPort) tReplyPort = 0;
}

kern_return_t vm_deallocate(vm_map_t, vm_address_t address, vm_size_t) {
  std::free(reinterpret_cast<void*>(address));
  return KERN_SUCCESS;
}

}  // extern "C"
