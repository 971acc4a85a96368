// The client's reply path: a reply frame body as the transport receives it, delivered into the
// stub's buffer and checked as the stub of the chosen routine checks it. Regions that come with
// it are released on every path, as callRoutine does.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ipc/message_codec.h"
#include "ipc/routine_catalogue.h"
#include "platform/fs/unique_fd.h"
#include "platform/mach/frame.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  auto routines = gw::ipc::allRoutines();
  const gw::ipc::Routine& routine = routines[data[0] % routines.size()];
  if (routine.reply == gw::ipc::ReplyShape::None) return 0;
  std::vector<std::uint8_t> body(data + 1, data + size);
  // Odd selector bytes get the right reply id and a consistent size, to reach the shape checks.
  if (data[0] & 0x80 && body.size() >= 24) {
    std::int32_t id = routine.id + 100;
    std::uint32_t messageSize = std::min<std::uint32_t>(std::uint32_t(body.size()) & ~3u, 64);
    std::memcpy(body.data() + 4, &messageSize, 4);
    std::memcpy(body.data() + 20, &id, 4);
  }
  std::vector<gw::mach::UniqueFd> fds;
  gw::ipc::MessageBuffer buffer;
  if (gw::mach::deliverFrame(body, fds, &buffer.header, routine.receiveLimit) != MACH_MSG_SUCCESS) {
    return 0;
  }
  gw::ipc::ReplyFields fields;
  kern_return_t status =
      gw::ipc::checkReply(routine, {buffer.bytes, buffer.header.msgh_size}, &fields);
  if (status != KERN_SUCCESS) {
    mach_msg_destroy(&buffer.header);
  } else if (routine.reply == gw::ipc::ReplyShape::Data) {
    // The caller reads every byte it was promised.
    volatile std::uint8_t sink = 0;
    auto* region = reinterpret_cast<const std::uint8_t*>(fields.data);
    for (std::uint32_t i = 0; i < fields.dataCount; ++i) sink = sink ^ region[i];
    vm_deallocate(mach_task_self(), fields.data, fields.dataCount);
  }
  return 0;
}
