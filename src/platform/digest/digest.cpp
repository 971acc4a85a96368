#include "platform/digest/digest.h"

#include <openssl/evp.h>

namespace gw::digest {

Digest::Digest(Algorithm algorithm) : algorithm_(algorithm), context_(EVP_MD_CTX_new()) {
  valid_ = context_ != nullptr && start();
}

Digest::~Digest() { EVP_MD_CTX_free(context_); }

bool Digest::start() {
  const EVP_MD* type = algorithm_ == Algorithm::MD5 ? EVP_md5() : EVP_sha1();
  return EVP_DigestInit_ex(context_, type, nullptr) == 1;
}

void Digest::update(const void* data, std::size_t size) {
  if (valid_ && size != 0) valid_ = EVP_DigestUpdate(context_, data, size) == 1;
}

bool Digest::finish(std::uint8_t* out) {
  if (!valid_) return false;
  unsigned int length = 0;
  bool ok = EVP_DigestFinal_ex(context_, out, &length) == 1 && length == size();
  valid_ = start();
  return ok;
}

std::array<std::uint8_t, kMD5Length> md5(std::span<const std::uint8_t> bytes) {
  std::array<std::uint8_t, kMD5Length> out{};
  Digest digest(Algorithm::MD5);
  digest.update(bytes.data(), bytes.size());
  digest.finish(out.data());
  return out;
}

std::array<std::uint8_t, kSHA1Length> sha1(std::span<const std::uint8_t> bytes) {
  std::array<std::uint8_t, kSHA1Length> out{};
  Digest digest(Algorithm::SHA1);
  digest.update(bytes.data(), bytes.size());
  digest.finish(out.data());
  return out;
}

}  // namespace gw::digest
