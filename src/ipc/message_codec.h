// Encoding and decoding of routine messages, driven by the routine catalogue.
//
// Client side: encodeRequest() lays out a request from the stub's arguments; checkReply() applies
// the reply checks (id, shape, NDR byte order) and hands out the reply's fields. Server side:
// decodeRequest() validates a received request against its routine and gives its fields;
// encodeReply() and encodeErrorReply() lay out the answer. Message layouts are the 64-bit ones;
// see docs/wire-mapping.md. Pure functions on caller-owned buffers; any thread; nothing throws
// except std::bad_alloc from the server-side vectors.
#pragma once

#include <gatewise/mach.h>

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "ipc/routine_catalogue.h"
#include "platform/mach/frame.h"

namespace gw::ipc {

// The NDR record this library writes: little-endian integers, ASCII, IEEE floats.
inline constexpr std::uint8_t kNdrRecord[8] = {0, 0, 0, 0, 1, 0, 0, 0};
inline constexpr std::size_t kNdrIntRepOffset = 4;
inline constexpr std::uint32_t kErrorReplySize = 36;

// A request being built in a buffer large enough for any routine, reused for its reply.
struct alignas(8) MessageBuffer {
  union {
    mach_msg_header_t header;
    std::uint8_t bytes[kMaxRequestSize + 64];
  };
  MessageBuffer() : bytes{} {}
};

// Lays out routine's request in out (header bits, size, ports and id included). Returns 0, or
// MIG_ARRAY_TOO_LARGE when an inline array is longer than 1024 bytes, or KERN_INVALID_ARGUMENT
// when the arguments do not match the routine. *size receives the request size.
kern_return_t encodeRequest(const Routine& routine, std::span<const Argument> arguments,
                            mach_port_t destination, mach_port_t replyPort, MessageBuffer& out,
                            std::uint32_t* size);

// A checked reply: the return code and the out fields, in the caller's byte order.
struct ReplyFields {
  std::int32_t returnCode = 0;
  std::int32_t scalars[4] = {};  // Plain replies
  vm_offset_t data = 0;          // Data replies: the region and its size
  std::uint32_t dataCount = 0;
};

// Applies the reply checks to the message in reply (its first msgh_size bytes are the reply, and
// reply.size() >= msgh_size): -308 for the send-once notification, -301 for a wrong id, -300 for
// a wrong shape; otherwise the daemon's return code (0 on success, with *fields filled).
kern_return_t checkReply(const Routine& routine, std::span<const std::uint8_t> reply,
                         ReplyFields* fields);

// One decoded request field (server side). Regions and inline bytes point into the frame.
struct FieldValue {
  std::int64_t integer = 0;             // Int32 (sign-extended), Int64; Port: the fd
  std::span<const std::uint8_t> bytes;  // Inline, OutOfLine
};

// Validates a request frame body (message, then regions) for routine and returns its fields in
// argument order, or nullopt when the request is malformed. fds: descriptors that came with the
// frame, in port-descriptor order.
std::optional<std::vector<FieldValue>> decodeRequest(const Routine& routine,
                                                     std::span<const std::uint8_t> body,
                                                     std::span<const int> fds);

// The reply frame body to request (header as received): Plain replies take scalars, Data replies
// take data. A non-zero returnCode gives the 36-byte error form.
std::vector<std::uint8_t> encodeReply(const Routine& routine, const mach_msg_header_t& request,
                                      std::int32_t returnCode,
                                      std::span<const std::int32_t> scalars,
                                      std::span<const std::uint8_t> data);
std::vector<std::uint8_t> encodeErrorReply(const mach_msg_header_t& request,
                                           std::int32_t returnCode);

}  // namespace gw::ipc
