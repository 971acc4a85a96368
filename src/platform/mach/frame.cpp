#include "platform/mach/frame.h"

namespace gw::mach {

std::optional<std::vector<Descriptor>> readDescriptors(std::span<const std::uint8_t> message) {
  std::vector<Descriptor> descriptors;
  if (message.size() < kHeaderSize) return std::nullopt;
  if (!(load32(message.data()) & MACH_MSGH_BITS_COMPLEX)) return descriptors;
  if (message.size() < kHeaderSize + 4) return std::nullopt;
  std::uint32_t count = load32(message.data() + kHeaderSize);
  // Each descriptor takes at least 12 bytes: a count beyond that cannot fit.
  if (count > (message.size() - kHeaderSize - 4) / kPortDescriptorSize) return std::nullopt;
  descriptors.reserve(count);
  std::size_t at = kHeaderSize + 4;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (at + kPortDescriptorSize > message.size()) return std::nullopt;
    Descriptor d;
    d.offset = at;
    d.type = message[at + 11];
    if (d.type == MACH_MSG_PORT_DESCRIPTOR) {
      d.name = load32(message.data() + at);
      at += kPortDescriptorSize;
    } else if (d.type == MACH_MSG_OOL_DESCRIPTOR) {
      if (at + kOolDescriptorSize > message.size()) return std::nullopt;
      d.address = load64(message.data() + at);
      d.size = load32(message.data() + at + 12);
      at += kOolDescriptorSize;
    } else {
      return std::nullopt;
    }
    descriptors.push_back(d);
  }
  return descriptors;
}

std::optional<std::vector<Descriptor>> checkFrame(std::span<const std::uint8_t> body,
                                                  std::size_t portFds) {
  if (body.size() < kHeaderSize) return std::nullopt;
  std::uint32_t messageSize = load32(body.data() + 4);
  if (messageSize < kHeaderSize || messageSize > body.size() || messageSize % 4 != 0) {
    return std::nullopt;
  }
  auto descriptors = readDescriptors(body.first(messageSize));
  if (!descriptors) return std::nullopt;
  std::size_t ports = 0;
  for (const Descriptor& d : *descriptors) {
    if (d.type == MACH_MSG_PORT_DESCRIPTOR) {
      ++ports;
    } else if (d.address < messageSize || d.address > body.size() ||
               d.size > body.size() - d.address) {
      return std::nullopt;
    }
  }
  if (ports != portFds) return std::nullopt;
  return descriptors;
}

}  // namespace gw::mach
