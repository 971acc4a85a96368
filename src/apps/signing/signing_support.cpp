#include "apps/signing/signing_support.h"

#include <gatewise/identity.h>
#include <gatewise/log.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/sha.h>

#include <cstdlib>
#include <ctime>

#include "platform/codesign/signature_store.h"
#include "platform/fs/file_io.h"
#include "platform/fs/file_url.h"
#include "platform/prefs/host_preferences.h"

namespace gw::signing {
namespace {

constexpr std::size_t kMaxAnchorFileSize = 256 * 1024;

}  // namespace

std::string pathOfURL(std::string_view url) { return fs::pathOfFileURL(url); }

std::optional<plist::Data> identityRecordOf(const std::string& path) {
  std::uint8_t* record = nullptr;
  std::uint32_t length = 0;
  if (IdentityCreateWithPath(path.c_str(), nullptr, &record, &length) != 0 || record == nullptr)
    return std::nullopt;
  plist::Data data(record, record + length);
  std::free(record);
  return data;
}

plist::Data sha1Of(const plist::Data& bytes) {
  plist::Data digest(SHA_DIGEST_LENGTH);
  SHA1(bytes.data(), bytes.size(), digest.data());
  return digest;
}

codesign::X509Ptr configuredMakerAnchor() {
  std::optional<plist::Value> setting =
      prefs::copyHostValue("com.morvane.Gatewise", "signingAnchor");
  if (!setting || !setting->isString()) return nullptr;
  std::string error;
  std::optional<std::string> pem = fs::readFile(setting->string(), kMaxAnchorFileSize, &error);
  if (!pem) {
    GW_LOG(0, "*** cannot read signing anchor: %@", error);
    return nullptr;
  }
  codesign::BioPtr bio(BIO_new_mem_buf(pem->data(), int(pem->size())));
  codesign::X509Ptr anchor(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!anchor) {
    ERR_clear_error();
    GW_LOG(0, "*** signing anchor %@ holds no certificate", setting->string());
  }
  return anchor;
}

std::optional<codesign::SignatureContents> loadSignature(
    const std::string& path, const std::optional<plist::Data>& detachedSignature, int* status,
    std::string* reason) {
  plist::Data der;
  if (detachedSignature) {
    der = *detachedSignature;
  } else {
    std::optional<plist::Data> embedded = codesign::readEmbeddedSignature(path, reason);
    if (!embedded) {
      *status = kStatusUnsigned;
      return std::nullopt;
    }
    der = std::move(*embedded);
  }
  auto contents = codesign::readSignature(der, std::time(nullptr), reason);
  if (!contents) *status = kStatusBadSignature;
  return contents;
}

}  // namespace gw::signing
