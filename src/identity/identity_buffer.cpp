#include "identity/identity_buffer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/digest/digest.h"

namespace gw::identity {
namespace {

// Large reads keep system-call overhead far below MD5's own cost; the buffer is kept per thread
// so that walks over many small files do not allocate it again for each.
constexpr std::size_t kReadChunk = std::size_t(1) << 20;

std::uint8_t* readBuffer() {
  thread_local std::unique_ptr<std::uint8_t[]> buffer;
  if (!buffer) buffer.reset(new (std::nothrow) std::uint8_t[kReadChunk]);
  return buffer.get();
}

}  // namespace

bool bufferCreate(IdentityBuffer& buffer) {
  buffer.data = static_cast<std::uint8_t*>(std::malloc(kBufferStep));
  buffer.capacity = buffer.data != nullptr ? kBufferStep : 0;
  buffer.length = 0;
  return buffer.data != nullptr;
}

bool bufferAppend(IdentityBuffer& buffer, const void* bytes, std::size_t size) {
  if (buffer.data == nullptr) return false;
  std::size_t capacity = buffer.capacity;
  while (capacity - buffer.length < size) capacity += kBufferStep;
  if (capacity != buffer.capacity) {
    void* grown = std::realloc(buffer.data, capacity);
    if (grown == nullptr) {
      std::free(buffer.data);
      buffer = IdentityBuffer{};
      return false;
    }
    buffer.data = static_cast<std::uint8_t*>(grown);
    buffer.capacity = capacity;
  }
  std::memcpy(buffer.cursor(), bytes, size);
  buffer.length += size;
  return true;
}

void bufferFree(IdentityBuffer& buffer) {
  std::free(buffer.data);
  buffer = IdentityBuffer{};
}

std::int32_t bufferPushMD5(IdentityBuffer& buffer, const void* bytes, std::size_t size) {
  digest::Digest md5(digest::Algorithm::MD5);
  std::uint8_t out[digest::kMD5Length];
  md5.update(bytes, size);
  if (!md5.finish(out)) return -1;
  return bufferAppend(buffer, out, sizeof out) ? 0 : -1;
}

}  // namespace gw::identity

using namespace gw::identity;

std::int32_t _BufferPushMD5FromFile(IdentityBuffer* buffer, int fd, std::uint64_t count) {
  if (buffer == nullptr) return -1;
  std::uint8_t* chunk = readBuffer();
  if (chunk == nullptr) return -1;
  gw::digest::Digest md5(gw::digest::Algorithm::MD5);
  bool toEnd = count == kToEndOfFile;
  std::uint64_t wanted = count;
  bool failed = false;
  while (toEnd || wanted > 0) {
    std::size_t ask = toEnd ? kReadChunk : std::size_t(std::min<std::uint64_t>(kReadChunk, wanted));
    ssize_t got = ::read(fd, chunk, ask);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      failed = true;
      break;
    }
    md5.update(chunk, std::size_t(got));
    if (!toEnd) wanted -= std::uint64_t(got);
    if (got == 0) break;
    // Hashing to the end stops at the first short read, as a regular file gives at its end.
    if (toEnd && std::size_t(got) < ask) break;
  }
  if (failed || (!toEnd && wanted != 0)) return -36;
  std::uint8_t out[gw::digest::kMD5Length];
  if (!md5.finish(out)) return -1;
  return bufferAppend(*buffer, out, sizeof out) ? 0 : -1;
}
