#include "ipc/message_codec.h"

#include <bit>
#include <cstring>

namespace gw::ipc {
namespace {

using mach::load32;
using mach::load64;
using mach::store32;
using mach::store64;

constexpr mach_msg_bits_t kOneWayBits = MACH_MSGH_BITS(MACH_MSG_TYPE_COPY_SEND, 0);
constexpr mach_msg_bits_t kTwoWayBits =
    MACH_MSGH_BITS(MACH_MSG_TYPE_COPY_SEND, MACH_MSG_TYPE_MAKE_SEND_ONCE);
constexpr mach_msg_bits_t kReplyBits = MACH_MSGH_BITS(MACH_MSG_TYPE_MOVE_SEND_ONCE, 0);

std::uint32_t swapped32(std::uint32_t v, bool swap) { return swap ? __builtin_bswap32(v) : v; }
std::uint64_t swapped64(std::uint64_t v, bool swap) { return swap ? __builtin_bswap64(v) : v; }

// Whether a record's integer representation differs from this library's.
bool needsSwap(const std::uint8_t* ndr) {
  return ndr[kNdrIntRepOffset] != kNdrRecord[kNdrIntRepOffset];
}

void writeHeader(std::uint8_t* p, mach_msg_bits_t bits, std::uint32_t size, mach_port_t remote,
                 mach_port_t local, std::int32_t id) {
  mach_msg_header_t h{bits, size, remote, local, 0, id};
  std::memcpy(p, &h, sizeof h);
}

}  // namespace

kern_return_t encodeRequest(const Routine& routine, std::span<const Argument> arguments,
                            mach_port_t destination, mach_port_t replyPort, MessageBuffer& out,
                            std::uint32_t* size) {
  if (arguments.size() != routine.request.size()) return KERN_INVALID_ARGUMENT;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    FieldType type = routine.request[i].type;
    if (type != FieldType::Inline && type != FieldType::OutOfLine) continue;
    if (type == FieldType::Inline && arguments[i].length > kMaxInlineBytes) {
      return MIG_ARRAY_TOO_LARGE;
    }
    if (arguments[i].length > 0 && !arguments[i].bytes) return KERN_INVALID_ARGUMENT;
  }
  const RequestLayout layout = requestLayout(routine);
  std::uint8_t* p = out.bytes;
  std::uint32_t at = sizeof(mach_msg_header_t);
  if (layout.complex) {
    store32(p + at, layout.outOfLineCount + layout.portCount);
    at += 4;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      const Argument& a = arguments[i];
      if (routine.request[i].type == FieldType::OutOfLine) {
        store64(p + at, reinterpret_cast<std::uintptr_t>(a.bytes));
        p[at + 8] = 0;  // the sender keeps its buffer
        p[at + 9] = MACH_MSG_VIRTUAL_COPY;
        p[at + 10] = 0;
        p[at + 11] = MACH_MSG_OOL_DESCRIPTOR;
        store32(p + at + 12, a.length);
        at += 16;
      } else if (routine.request[i].type == FieldType::Port) {
        store32(p + at, std::uint32_t(a.integer));
        store32(p + at + 4, 0);
        p[at + 8] = p[at + 9] = 0;
        p[at + 10] = MACH_MSG_TYPE_COPY_SEND;
        p[at + 11] = MACH_MSG_PORT_DESCRIPTOR;
        at += 12;
      }
    }
  }
  if (layout.hasNdr) {
    std::memcpy(p + at, kNdrRecord, sizeof kNdrRecord);
    at += 8;
  }
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const Argument& a = arguments[i];
    switch (routine.request[i].type) {
      case FieldType::Int32:
        store32(p + at, std::uint32_t(a.integer));
        at += 4;
        break;
      case FieldType::Int64:
        store64(p + at, std::uint64_t(a.integer));
        at += 8;
        break;
      case FieldType::Inline: {
        store32(p + at, a.length);
        if (a.length) std::memcpy(p + at + 4, a.bytes, a.length);
        std::uint32_t padded = paddedLength(a.length);
        std::memset(p + at + 4 + a.length, 0, padded - a.length);
        at += 4 + padded;
        break;
      }
      case FieldType::OutOfLine:
      case FieldType::Port:
        break;
    }
  }
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (routine.request[i].type != FieldType::OutOfLine) continue;
    store32(p + at, arguments[i].length);
    at += 4;
  }
  const bool twoWay = routine.kind == RoutineKind::TwoWay;
  writeHeader(p,
              (twoWay ? kTwoWayBits : kOneWayBits) | (layout.complex ? MACH_MSGH_BITS_COMPLEX : 0),
              at, destination, twoWay ? replyPort : 0, routine.id);
  *size = at;
  return KERN_SUCCESS;
}

kern_return_t checkReply(const Routine& routine, std::span<const std::uint8_t> reply,
                         ReplyFields* fields) {
  if (reply.size() < sizeof(mach_msg_header_t)) return MIG_TYPE_ERROR;
  mach_msg_header_t h;
  std::memcpy(&h, reply.data(), sizeof h);
  if (h.msgh_id == MACH_NOTIFY_SEND_ONCE) return MIG_SERVER_DIED;
  if (h.msgh_id != routine.id + kReplyIdOffset) return MIG_REPLY_MISMATCH;
  if (h.msgh_size > reply.size()) return MIG_TYPE_ERROR;
  const std::uint8_t* p = reply.data();
  const bool complex = h.msgh_bits & MACH_MSGH_BITS_COMPLEX;

  // The 36-byte error form: header, NDR, a non-zero return code.
  auto errorForm = [&]() -> kern_return_t {
    std::int32_t code = std::int32_t(swapped32(load32(p + 32), needsSwap(p + 24)));
    return code == 0 ? MIG_TYPE_ERROR : code;
  };

  if (routine.reply == ReplyShape::Plain) {
    const std::uint32_t full = replySize(routine);
    if (complex || (h.msgh_size != full && h.msgh_size != kErrorReplySize)) return MIG_TYPE_ERROR;
    const bool swap = needsSwap(p + 24);
    std::int32_t code = std::int32_t(swapped32(load32(p + 32), swap));
    if (h.msgh_size != full) return errorForm();  // 36 bytes: only valid with an error code
    if (code != 0) return code;
    for (std::size_t i = 0; i < routine.replyOut.size() && i < 4; ++i) {
      fields->scalars[i] = std::int32_t(swapped32(load32(p + 36 + 4 * i), swap));
    }
    fields->returnCode = 0;
    return KERN_SUCCESS;
  }
  if (routine.reply == ReplyShape::Data) {
    if (!complex) {
      if (h.msgh_size != kErrorReplySize) return MIG_TYPE_ERROR;
      return errorForm();
    }
    if (h.msgh_size != 56 || load32(p + 24) != 1 || p[28 + 11] != MACH_MSG_OOL_DESCRIPTOR) {
      return MIG_TYPE_ERROR;
    }
    std::uint32_t count = swapped32(load32(p + 52), needsSwap(p + 44));
    // Never hand out a count larger than the region that actually arrived.
    if (count > load32(p + 28 + 12)) return MIG_TYPE_ERROR;
    fields->data = vm_offset_t(load64(p + 28));
    fields->dataCount = count;
    fields->returnCode = 0;
    return KERN_SUCCESS;
  }
  return MIG_TYPE_ERROR;
}

std::optional<std::vector<FieldValue>> decodeRequest(const Routine& routine,
                                                     std::span<const std::uint8_t> body,
                                                     std::span<const int> fds) {
  auto descriptors = mach::checkFrame(body, fds.size());
  if (!descriptors) return std::nullopt;
  const std::uint8_t* p = body.data();
  mach_msg_header_t h;
  std::memcpy(&h, p, sizeof h);
  const RequestLayout layout = requestLayout(routine);
  if (bool(h.msgh_bits & MACH_MSGH_BITS_COMPLEX) != layout.complex) return std::nullopt;
  if (routine.kind == RoutineKind::TwoWay && h.msgh_local_port == 0) return std::nullopt;
  if (descriptors->size() != layout.outOfLineCount + layout.portCount) return std::nullopt;

  std::vector<FieldValue> values(routine.request.size());
  std::vector<std::size_t> regionOf;  // descriptor index of each out-of-line field, in order
  std::size_t nextDescriptor = 0, nextFd = 0;
  for (std::size_t i = 0; i < routine.request.size(); ++i) {
    FieldType type = routine.request[i].type;
    if (type != FieldType::OutOfLine && type != FieldType::Port) continue;
    const mach::Descriptor& d = (*descriptors)[nextDescriptor];
    std::uint8_t wanted =
        type == FieldType::Port ? MACH_MSG_PORT_DESCRIPTOR : MACH_MSG_OOL_DESCRIPTOR;
    if (d.type != wanted) return std::nullopt;
    if (type == FieldType::Port) values[i].integer = fds[nextFd++];
    ++nextDescriptor;
  }

  const std::uint32_t size = h.msgh_size;
  std::size_t at = sizeof h;
  if (layout.complex) {
    at += 4;
    for (const mach::Descriptor& d : *descriptors) {
      at +=
          d.type == MACH_MSG_PORT_DESCRIPTOR ? mach::kPortDescriptorSize : mach::kOolDescriptorSize;
    }
  }
  bool swap = false;
  if (layout.hasNdr) {
    if (at + 8 > size) return std::nullopt;
    swap = needsSwap(p + at);
    at += 8;
  }
  auto take = [&](std::size_t n) -> const std::uint8_t* {
    if (at + n > size) return nullptr;
    const std::uint8_t* field = p + at;
    at += n;
    return field;
  };
  for (std::size_t i = 0; i < routine.request.size(); ++i) {
    FieldValue& v = values[i];
    switch (routine.request[i].type) {
      case FieldType::Int32: {
        const std::uint8_t* f = take(4);
        if (!f) return std::nullopt;
        v.integer = std::int32_t(swapped32(load32(f), swap));
        break;
      }
      case FieldType::Int64: {
        const std::uint8_t* f = take(8);
        if (!f) return std::nullopt;
        v.integer = std::int64_t(swapped64(load64(f), swap));
        break;
      }
      case FieldType::Inline: {
        const std::uint8_t* f = take(4);
        if (!f) return std::nullopt;
        std::uint32_t count = swapped32(load32(f), swap);
        if (count > kMaxInlineBytes) return std::nullopt;
        const std::uint8_t* bytes = take(paddedLength(count));
        if (!bytes) return std::nullopt;
        v.bytes = {bytes, count};
        break;
      }
      case FieldType::OutOfLine:
      case FieldType::Port:
        break;
    }
  }
  nextDescriptor = 0;
  for (std::size_t i = 0; i < routine.request.size(); ++i) {
    FieldType type = routine.request[i].type;
    if (type == FieldType::Port) ++nextDescriptor;
    if (type != FieldType::OutOfLine) continue;
    const mach::Descriptor& d = (*descriptors)[nextDescriptor++];
    const std::uint8_t* f = take(4);
    if (!f) return std::nullopt;
    std::uint32_t count = swapped32(load32(f), swap);
    // The size scalar is what the server goes by; it may not reach past the region sent.
    if (count > d.size) return std::nullopt;
    values[i].bytes = body.subspan(std::size_t(d.address), count);
  }
  if (at != size) return std::nullopt;
  return values;
}

std::vector<std::uint8_t> encodeErrorReply(const mach_msg_header_t& request,
                                           std::int32_t returnCode) {
  std::vector<std::uint8_t> out(kErrorReplySize);
  // Any id may come in (an unknown one is answered too): wrap instead of overflowing.
  writeHeader(out.data(), kReplyBits, kErrorReplySize, request.msgh_local_port, 0,
              std::int32_t(std::uint32_t(request.msgh_id) + kReplyIdOffset));
  std::memcpy(out.data() + 24, kNdrRecord, 8);
  store32(out.data() + 32, std::uint32_t(returnCode));
  return out;
}

std::vector<std::uint8_t> encodeReply(const Routine& routine, const mach_msg_header_t& request,
                                      std::int32_t returnCode,
                                      std::span<const std::int32_t> scalars,
                                      std::span<const std::uint8_t> data) {
  if (routine.reply == ReplyShape::None) return {};
  if (returnCode != 0) return encodeErrorReply(request, returnCode);
  const std::uint32_t size = replySize(routine);
  const std::int32_t id = request.msgh_id + kReplyIdOffset;
  if (routine.reply == ReplyShape::Plain) {
    std::vector<std::uint8_t> out(size);
    writeHeader(out.data(), kReplyBits, size, request.msgh_local_port, 0, id);
    std::memcpy(out.data() + 24, kNdrRecord, 8);
    store32(out.data() + 32, 0);
    for (std::size_t i = 0; i < routine.replyOut.size() && i < scalars.size(); ++i) {
      store32(out.data() + 36 + 4 * i, std::uint32_t(scalars[i]));
    }
    return out;
  }
  std::vector<std::uint8_t> out(size + data.size());
  std::uint8_t* p = out.data();
  writeHeader(p, kReplyBits | MACH_MSGH_BITS_COMPLEX, size, request.msgh_local_port, 0, id);
  store32(p + 24, 1);
  store64(p + 28, size);  // the region follows the message
  p[36] = 0;
  p[37] = MACH_MSG_VIRTUAL_COPY;
  p[38] = 0;
  p[39] = MACH_MSG_OOL_DESCRIPTOR;
  store32(p + 40, std::uint32_t(data.size()));
  std::memcpy(p + 44, kNdrRecord, 8);
  store32(p + 52, std::uint32_t(data.size()));
  if (!data.empty()) std::memcpy(p + size, data.data(), data.size());
  return out;
}

}  // namespace gw::ipc
