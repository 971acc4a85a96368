// The server's request path: any frame body handed to a dispatcher that serves every routine of
// the daemon (first byte even) or of the web filter (odd). The handler reads every decoded field.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

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
  if (size < 2) return 0;
  auto service = data[0] % 2 == 0 ? gw::ipc::Service::Daemon : gw::ipc::Service::WebFilter;
  // Most inputs get a plausible header (a real id, the true size) so that the decoder's deeper
  // checks are reached; inputs whose second byte is 0 keep their header as it is.
  std::vector<std::uint8_t> body(data + 2, data + size);
  if (data[1] != 0 && body.size() >= 24) {
    auto routines = gw::ipc::allRoutines();
    const gw::ipc::Routine& r = routines[data[1] % routines.size()];
    std::int32_t id = r.id;
    std::uint32_t messageSize = std::uint32_t(body.size()) & ~3u;
    std::memcpy(body.data() + 4, &messageSize, 4);
    std::memcpy(body.data() + 20, &id, 4);
  }
  // Port descriptors come with descriptors; hand over as many placeholders as the frame asks for.
  static const int kFds[4] = {-1, -1, -1, -1};
  int fdCount = (data[0] >> 1) % 5;
  dispatcherFor(service).dispatch(body, {kFds, std::size_t(fdCount)}, {});
  return 0;
}
