// mach_msg over AF_UNIX stream connections: one connection per exchange (see frame.h).
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "platform/mach/frame.h"
#include "platform/mach/ports.h"
#include "platform/mach/socket_io.h"

namespace gw::mach {
namespace {

constexpr mach_msg_return_t kSendInvalidRight = 0x10000007;
constexpr mach_msg_return_t kSendNoBuffer = 0x1000000d;
constexpr mach_msg_return_t kReceiveBodyError = 0x1000400c;
// Enough for every reply of the catalogue, so that the common case takes one read.
constexpr std::size_t kSmallReply = 256;
// The most descriptors a frame can carry (what sendAll sends with one message).
constexpr std::size_t kMaxReplyRights = 16;

// What a dead Mach server leaves in the reply port: the send-once notification.
mach_msg_return_t deliverServerDiedNotification(mach_msg_header_t* msg, mach_msg_size_t rcv_size,
                                                mach_port_t rcv_name) {
  if (rcv_size < kHeaderSize) return MACH_RCV_TOO_LARGE;
  *msg = mach_msg_header_t{MACH_MSGH_BITS(MACH_MSG_TYPE_MOVE_SEND_ONCE, 0),
                           mach_msg_size_t(kHeaderSize),
                           0,
                           rcv_name,
                           0,
                           MACH_NOTIFY_SEND_ONCE};
  return MACH_MSG_SUCCESS;
}

mach_msg_return_t sendStatus(IoStatus status) {
  switch (status) {
    case IoStatus::Ok:
      return MACH_MSG_SUCCESS;
    case IoStatus::TimedOut:
      return MACH_SEND_TIMED_OUT;
    case IoStatus::Failed:
      return kSendNoBuffer;
    case IoStatus::Closed:
    case IoStatus::Refused:
      break;
  }
  return MACH_SEND_INVALID_DEST;
}

mach_msg_return_t receiveReply(int fd, mach_msg_header_t* msg, mach_msg_size_t rcv_size,
                               mach_port_t rcv_name, Deadline deadline) {
  std::vector<UniqueFd> fds;
  std::size_t dropped = 0;  // descriptors past kMaxReplyRights: the reply cannot be whole
  std::uint8_t small[4 + kSmallReply];
  // The first read takes the length and, usually, the whole reply.
  std::size_t have = 0;
  while (have < 4) {
    std::size_t got = 0;
    IoStatus status = receiveBounded(fd, small + have, sizeof small - have, &got, &fds,
                                     kMaxReplyRights, &dropped);
    if (status == IoStatus::Closed) return deliverServerDiedNotification(msg, rcv_size, rcv_name);
    if (status != IoStatus::Ok) return MACH_RCV_PORT_DIED;
    if (got == 0) {
      pollfd p{fd, POLLIN, 0};
      int n = ::poll(&p, 1, deadline.pollTimeout());
      if (n == 0) return MACH_RCV_TIMED_OUT;
      continue;  // readable, interrupted or failed: the next read tells
    }
    have += got;
  }
  std::uint32_t length = std::uint32_t(small[0]) | std::uint32_t(small[1]) << 8 |
                         std::uint32_t(small[2]) << 16 | std::uint32_t(small[3]) << 24;
  if (length < kHeaderSize) return MACH_RCV_INVALID_DATA;
  if (length > std::uint64_t(rcv_size) + kMaxRegionBytes) return MACH_RCV_TOO_LARGE;
  std::size_t inSmall = have - 4;
  if (inSmall > length) return MACH_RCV_INVALID_DATA;  // bytes after the only frame
  if (inSmall == length) {
    if (dropped > 0) return MACH_RCV_INVALID_DATA;
    return deliverFrame(std::span<const std::uint8_t>(small + 4, length), fds, msg, rcv_size);
  }
  std::vector<std::uint8_t> body;
  try {
    body.resize(length);
  } catch (const std::bad_alloc&) {
    return kReceiveBodyError;
  }
  std::memcpy(body.data(), small + 4, inSmall);
  IoStatus status = receiveExactly(fd, body.data() + inSmall, length - inSmall, deadline, &fds,
                                   kMaxReplyRights, &dropped);
  if (status == IoStatus::Closed) return deliverServerDiedNotification(msg, rcv_size, rcv_name);
  if (status == IoStatus::TimedOut) return MACH_RCV_TIMED_OUT;
  if (status != IoStatus::Ok) return MACH_RCV_PORT_DIED;
  if (dropped > 0) return MACH_RCV_INVALID_DATA;
  return deliverFrame(body, fds, msg, rcv_size);
}

}  // namespace

// Moves a received frame body into the caller's buffer, giving each out-of-line region its own
// allocation and each port descriptor the descriptor that came with it.
mach_msg_return_t deliverFrame(std::span<const std::uint8_t> body, std::vector<UniqueFd>& fds,
                               mach_msg_header_t* msg, mach_msg_size_t rcv_size) {
  auto descriptors = checkFrame(body, fds.size());
  if (!descriptors) return MACH_RCV_INVALID_DATA;
  std::uint32_t messageSize = load32(body.data() + 4);
  if (messageSize > rcv_size) return MACH_RCV_TOO_LARGE;
  std::vector<void*> regions;
  for (const Descriptor& d : *descriptors) {
    if (d.type != MACH_MSG_OOL_DESCRIPTOR || d.size == 0) continue;
    void* region = std::malloc(d.size);
    if (!region) {
      for (void* r : regions) std::free(r);
      return kReceiveBodyError;
    }
    std::memcpy(region, body.data() + d.address, d.size);
    regions.push_back(region);
  }
  auto* out = reinterpret_cast<std::uint8_t*>(msg);
  std::memcpy(out, body.data(), messageSize);
  std::size_t nextRegion = 0, nextFd = 0;
  for (const Descriptor& d : *descriptors) {
    if (d.type == MACH_MSG_PORT_DESCRIPTOR) {
      store32(out + d.offset, std::uint32_t(fds[nextFd++].release()));
    } else {
      void* region = d.size == 0 ? nullptr : regions[nextRegion++];
      store64(out + d.offset, reinterpret_cast<std::uintptr_t>(region));
    }
  }
  return MACH_MSG_SUCCESS;
}

}  // namespace gw::mach

using namespace gw::mach;

extern "C" mach_msg_return_t mach_msg(mach_msg_header_t* msg, mach_msg_option_t option,
                                      mach_msg_size_t send_size, mach_msg_size_t rcv_size,
                                      mach_port_t rcv_name, mach_msg_timeout_t timeout,
                                      mach_port_t /*notify*/) {
  if (!msg) return MACH_SEND_INVALID_HEADER;
  // Receiving without sending has no connection to read from in this transport.
  if (!(option & MACH_SEND_MSG)) return MACH_RCV_INVALID_NAME;
  const bool twoWay = option & MACH_RCV_MSG;
  if (twoWay && (rcv_name == 0 || rcv_name != msg->msgh_local_port)) return MACH_RCV_INVALID_NAME;
  if (send_size < kHeaderSize || send_size % 4 != 0) return MACH_SEND_INVALID_HEADER;

  const auto* bytes = reinterpret_cast<const std::uint8_t*>(msg);
  auto descriptors = readDescriptors({bytes, send_size});
  if (!descriptors) return MACH_SEND_INVALID_DATA;

  // The frame: length, a copy of the message whose out-of-line addresses become offsets, the
  // regions themselves. The caller's message is left as it was.
  std::vector<std::uint8_t> message(bytes, bytes + send_size);
  store32(message.data() + 4, send_size);
  std::vector<iovec> iov;
  std::vector<int> fds;
  std::uint8_t length[4];
  iov.push_back({length, sizeof length});
  iov.push_back({message.data(), message.size()});
  std::uint64_t offset = send_size;
  for (const Descriptor& d : *descriptors) {
    if (d.type == MACH_MSG_PORT_DESCRIPTOR) {
      if (int(d.name) < 0 || ::fcntl(int(d.name), F_GETFD) < 0) return kSendInvalidRight;
      fds.push_back(int(d.name));
      continue;
    }
    if (d.size > 0 && d.address == 0) return MACH_SEND_INVALID_DATA;
    if (offset - send_size + d.size > kMaxRegionBytes) return MACH_SEND_INVALID_DATA;
    store64(message.data() + d.offset, offset);
    iov.push_back({reinterpret_cast<void*>(std::uintptr_t(d.address)), d.size});
    offset += d.size;
  }
  for (int i = 0; i < 4; ++i) length[i] = std::uint8_t(offset >> (8 * i));

  std::string path = servicePathForPort(msg->msgh_remote_port);
  if (path.empty()) return MACH_SEND_INVALID_DEST;
  Deadline sendDeadline =
      (option & MACH_SEND_TIMEOUT) ? Deadline::afterMilliseconds(timeout) : Deadline::never();
  UniqueFd connection = takeLookUpConnection(msg->msgh_remote_port);
  const bool fromLookUp = bool(connection);
  if (!connection) {
    IoStatus status = connectUnix(path, sendDeadline, &connection);
    if (status != IoStatus::Ok) return sendStatus(status);
  }
  IoStatus sent = sendAll(connection.get(), iov, fds, sendDeadline);
  // A look-up connection left unused for long may have been closed by the server as idle before
  // anything was written on it: that is no answer from the service, so connect once more.
  if (sent == IoStatus::Closed && fromLookUp) {
    connection.reset();
    IoStatus status = connectUnix(path, sendDeadline, &connection);
    if (status != IoStatus::Ok) return sendStatus(status);
    sent = sendAll(connection.get(), iov, fds, sendDeadline);
  }
  if (sent == IoStatus::Closed && twoWay) {
    return deliverServerDiedNotification(msg, rcv_size, rcv_name);
  }
  if (sent != IoStatus::Ok) return sendStatus(sent);
  if (!twoWay) return MACH_MSG_SUCCESS;

  Deadline receiveDeadline =
      (option & MACH_RCV_TIMEOUT) ? Deadline::afterMilliseconds(timeout) : Deadline::never();
  return receiveReply(connection.get(), msg, rcv_size, rcv_name, receiveDeadline);
}

extern "C" void mach_msg_destroy(mach_msg_header_t* msg) {
  if (!msg) return;
  auto* bytes = reinterpret_cast<std::uint8_t*>(msg);
  auto descriptors = readDescriptors({bytes, msg->msgh_size});
  if (!descriptors) return;
  for (const Descriptor& d : *descriptors) {
    if (d.type == MACH_MSG_PORT_DESCRIPTOR) {
      ::close(int(d.name));
      store32(bytes + d.offset, 0);
    } else {
      std::free(reinterpret_cast<void*>(std::uintptr_t(d.address)));
      store64(bytes + d.offset, 0);
    }
  }
}
