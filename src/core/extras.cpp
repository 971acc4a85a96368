// UUIDString and the GWExtras helpers: URL bundle information and index sets.
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <openssl/rand.h>
#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/random_source.h"
#include "platform/bundle/bundle.h"
#include "platform/fs/file_url.h"

namespace gw::core {
namespace {
GetrandomFunction gGetrandom = ::getrandom;
}  // namespace

void setGetrandomForTesting(GetrandomFunction function) {
  gGetrandom = function ? function : ::getrandom;
}

}  // namespace gw::core

namespace {

// getrandom(2) may be interrupted, give short reads, or be missing altogether (old kernels,
// seccomp filters): a few attempts, then OpenSSL's generator, never a loop without end.
bool fillRandom(unsigned char* bytes, std::size_t size) {
  constexpr int kAttempts = 8;
  std::size_t have = 0;
  for (int failures = 0; have < size && failures < kAttempts;) {
    ssize_t n = gw::core::gGetrandom(bytes + have, size - have, 0);
    if (n > 0) {
      have += std::size_t(n);
    } else {
      ++failures;
    }
  }
  if (have == size) return true;
  GW_LOG(0, "*** getrandom failed (%s); using OpenSSL's generator", std::strerror(errno));
  return RAND_bytes(bytes, int(size)) == 1;
}

}  // namespace

std::string UUIDString() {
  unsigned char bytes[16];
  if (!fillRandom(bytes, sizeof bytes)) {
    GW_LOG(0, "*** no random source: no UUID");
    return {};
  }
  bytes[6] = (bytes[6] & 0x0F) | 0x40;  // version 4: random
  bytes[8] = (bytes[8] & 0x3F) | 0x80;  // RFC 4122 variant
  char text[37];
  std::snprintf(text, sizeof text,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", bytes[0],
                bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
                bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
  return text;
}

std::optional<std::string> GWURLBundleID(std::string_view url) {
  gw::plist::DictionaryRef info = gw::bundle::copyInfoDictionaryForPath(gw::fs::pathOfFileURL(url));
  if (!info) return std::nullopt;
  const gw::plist::Value* identifier = info->find("CFBundleIdentifier");
  if (!identifier || !identifier->isString()) return std::nullopt;
  return identifier->string();
}

std::string GWURLBundleName(std::string_view url) {
  std::string path = gw::fs::pathOfFileURL(url);
  if (gw::plist::DictionaryRef info = gw::bundle::copyInfoDictionaryForPath(path)) {
    const gw::plist::Value* name = info->find("CFBundleName");
    if (name && name->isString()) return name->string();
  }
  std::string last = path.substr(path.rfind('/') + 1);
  std::size_t dot = last.rfind('.');
  return dot == std::string::npos || dot == 0 ? last : last.substr(0, dot);
}

std::set<std::uint64_t> GWIndexSetWithArray(const gw::plist::ArrayRef& array) {
  std::set<std::uint64_t> indexes;
  if (!array) return indexes;
  for (const gw::plist::Value& element : *array) {
    std::int64_t value = element.intValue();
    if (value >= 0) indexes.insert(std::uint64_t(value));
  }
  return indexes;
}

gw::plist::ArrayRef GWIndexSetAllObjects(const std::set<std::uint64_t>& indexes) {
  auto numbers = gw::plist::Array::make();
  for (std::uint64_t index : indexes) numbers->append(index);
  return numbers;
}
