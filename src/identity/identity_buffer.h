// The growable byte buffer that becomes an identity record, and the MD5 appenders that fill it.
//
// The buffer starts at 1024 bytes and grows by exactly 1024 bytes whenever a write would not
// fit; its memory comes from malloc so that the finished record can be handed to a caller who
// releases it with free(). One buffer per walk; not shared between threads.
#pragma once

#include <cstddef>
#include <cstdint>

namespace gw::identity {

inline constexpr std::size_t kBufferStep = 1024;
// count value meaning "to the end of the file".
inline constexpr std::uint64_t kToEndOfFile = ~std::uint64_t(0);

struct IdentityBuffer {
  std::uint8_t* data = nullptr;
  std::size_t capacity = 0;
  std::size_t length = 0;
  std::uint8_t* cursor() { return data + length; }
};

// Allocates the first 1024 bytes; false when memory is short.
bool bufferCreate(IdentityBuffer& buffer);
// Appends bytes, growing as needed; false (buffer unchanged) when it cannot grow, in which case
// the data has been freed if reallocation failed.
bool bufferAppend(IdentityBuffer& buffer, const void* bytes, std::size_t size);
void bufferFree(IdentityBuffer& buffer);

// Owns a buffer until release() hands its memory on.
class BufferOwner {
 public:
  explicit BufferOwner(IdentityBuffer& buffer) : buffer_(buffer) {}
  ~BufferOwner() { bufferFree(buffer_); }
  BufferOwner(const BufferOwner&) = delete;
  BufferOwner& operator=(const BufferOwner&) = delete;
  std::uint8_t* release() {
    std::uint8_t* data = buffer_.data;
    buffer_ = IdentityBuffer{};
    return data;
  }

 private:
  IdentityBuffer& buffer_;
};

// Appends the MD5 of bytes.
std::int32_t bufferPushMD5(IdentityBuffer& buffer, const void* bytes, std::size_t size);

}  // namespace gw::identity

// Hashes count bytes from the file's current position (kToEndOfFile: to its end) and appends the
// MD5. Returns 0, -36 on a read error or when the file holds fewer than count bytes, -1 when the
// buffer cannot grow; nothing is appended on failure.
extern "C" std::int32_t _BufferPushMD5FromFile(gw::identity::IdentityBuffer* buffer, int fd,
                                               std::uint64_t count);
