// The socket framing of a message, shared by the sending and the receiving side.
//
// A frame is a 4-byte little-endian length L, then L bytes: the message exactly as laid out in
// memory (header, descriptor count and descriptors when complex, NDR record, fields; msgh_size
// bytes), followed by the bytes of its out-of-line regions in descriptor order, unpadded. In the
// frame an out-of-line descriptor's 64-bit address holds the byte offset of its region from the
// first byte of the header. A port descriptor keeps its name; the right travels as a file
// descriptor in SCM_RIGHTS, one per port descriptor, in descriptor order.
//
// Descriptors: a port descriptor is 12 bytes, every other kind 16 (64-bit layout); the type is the
// last byte of both forms, so a reader can walk them. Pure functions; any thread.
#pragma once

#include <gatewise/mach.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

#include "platform/fs/unique_fd.h"

namespace gw::mach {

using fs::UniqueFd;

// Out-of-line bytes a single frame may carry besides its message.
inline constexpr std::size_t kMaxRegionBytes = std::size_t(64) << 20;
inline constexpr std::size_t kHeaderSize = sizeof(mach_msg_header_t);
inline constexpr std::size_t kOolDescriptorSize = 16;
inline constexpr std::size_t kPortDescriptorSize = 12;

struct Descriptor {
  std::size_t offset = 0;  // of the descriptor in the message
  std::uint8_t type = 0;
  std::uint64_t address = 0;  // out-of-line: pointer (in memory) or offset (in a frame)
  std::uint32_t size = 0;     // out-of-line: region size
  mach_port_t name = 0;       // port: its name
};

inline std::uint32_t load32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline void store32(std::uint8_t* p, std::uint32_t v) { std::memcpy(p, &v, 4); }
inline std::uint64_t load64(const std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}
inline void store64(std::uint8_t* p, std::uint64_t v) { std::memcpy(p, &v, 8); }

// The descriptors of a message of `size` bytes, or nullopt when the message is not complex-shaped
// (count or descriptors run past the end, a descriptor type this transport does not carry).
// A simple message gives an empty list.
std::optional<std::vector<Descriptor>> readDescriptors(std::span<const std::uint8_t> message);

// Checks a received frame body (L bytes): a header, msgh_size within the body, descriptors within
// the message, every region inside the body after the message. portFds: number of descriptors
// that came with the frame, which must equal the number of port descriptors.
// Returns the descriptors, or nullopt when the frame is malformed.
std::optional<std::vector<Descriptor>> checkFrame(std::span<const std::uint8_t> body,
                                                  std::size_t portFds);

// Moves a received frame body into msg (at most rcv_size bytes of message), giving each
// out-of-line region its own allocation (released with vm_deallocate) and each port descriptor
// the descriptor that came with it (taken from fds). MACH_RCV_INVALID_DATA for a malformed frame,
// MACH_RCV_TOO_LARGE when the message does not fit; nothing is allocated then.
mach_msg_return_t deliverFrame(std::span<const std::uint8_t> body, std::vector<UniqueFd>& fds,
                               mach_msg_header_t* msg, mach_msg_size_t rcv_size);

}  // namespace gw::mach
