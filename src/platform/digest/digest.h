// MD5 and SHA-1 message digests, through OpenSSL's EVP interface.
//
// A Digest owns one EVP context: feed it with update(), read the result with finish(), which also
// starts it afresh for the next message. Not copyable; one thread at a time per object. A context
// that OpenSSL could not set up reports valid() == false and every finish() then fails.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

typedef struct evp_md_ctx_st EVP_MD_CTX;

namespace gw::digest {

inline constexpr std::size_t kMD5Length = 16;
inline constexpr std::size_t kSHA1Length = 20;

enum class Algorithm { MD5, SHA1 };

class Digest {
 public:
  explicit Digest(Algorithm algorithm);
  ~Digest();
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  bool valid() const { return valid_; }
  std::size_t size() const { return algorithm_ == Algorithm::MD5 ? kMD5Length : kSHA1Length; }
  void update(const void* data, std::size_t size);
  // Writes size() bytes to out and restarts the digest. False when OpenSSL failed at any point.
  bool finish(std::uint8_t* out);

 private:
  bool start();
  Algorithm algorithm_;
  EVP_MD_CTX* context_;
  bool valid_ = false;
};

// One-shot digests.
std::array<std::uint8_t, kMD5Length> md5(std::span<const std::uint8_t> bytes);
std::array<std::uint8_t, kSHA1Length> sha1(std::span<const std::uint8_t> bytes);

}  // namespace gw::digest
