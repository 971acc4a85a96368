// The server's request path: any frame body handed to a dispatcher that serves every routine of
// the daemon (first byte even) or of the web filter (odd). The handler reads every decoded field.
#include <cstddef>
#include <cstdint>

#include "ipc/dispatcher.h"

namespace {

gw::ipc::Dispatcher& dispatcherFor(gw::ipc::Service service) {
  static gw::ipc::Dispatcher* dispatchers[2] = {};
  auto& d = dispatchers[service == gw::ipc::Service::Daemon ? 0 : 1];
  if (!d) {
    d = new gw::ipc::Dispatcher(service);
    for (const gw::ipc::Routine& r : gw::ipc::allRoutines()) {
      if (r.service != service) continue;
      d->handle(r.name, [](const gw::ipc::Request& request) {
        gw::ipc::Reply reply;
        std::uint32_t sum = 0;
        for (const gw::ipc::FieldValue& f : request.fields) {
          sum += std::uint32_t(f.integer);
          for (std::uint8_t b : f.bytes) sum += b;
        }
        reply.scalars = {std::int32_t(sum), 1, 2, 3};
        reply.data.assign(sum % 64, 0x5a);
        return reply;
      });
    }
  }
  return *d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  auto service = data[0] % 2 == 0 ? gw::ipc::Service::Daemon : gw::ipc::Service::WebFilter;
  // Port descriptors come with descriptors; hand over as many placeholders as the frame asks for.
  static const int kFds[4] = {-1, -1, -1, -1};
  int fdCount = (data[0] >> 1) % 5;
  dispatcherFor(service).dispatch({data + 1, size - 1}, {kFds, std::size_t(fdCount)}, {});
  return 0;
}
