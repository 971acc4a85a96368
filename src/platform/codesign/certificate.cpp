#include "platform/codesign/certificate.h"

#include <openssl/bn.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>

namespace gw::codesign {
namespace {

bool addExtension(X509* certificate, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (extension == nullptr) return false;
  bool added = X509_add_ext(certificate, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return added;
}

bool setRandomSerial(X509* certificate) {
  BIGNUM* serial = BN_new();
  bool done = serial != nullptr && BN_rand(serial, 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
              BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(certificate)) != nullptr;
  BN_free(serial);
  return done;
}

}  // namespace

std::optional<Identity> makeSelfSignedIdentity(std::string_view commonName,
                                               const CertificateOptions& options) {
  PkeyPtr key(EVP_EC_gen("P-256"));
  X509Ptr certificate(X509_new());
  if (!key || !certificate) return std::nullopt;
  X509* x = certificate.get();
  std::string name(commonName);
  X509_NAME* subject = X509_get_subject_name(x);
  bool ok = X509_set_version(x, 2) == 1 && setRandomSerial(x) &&
            X509_gmtime_adj(X509_getm_notBefore(x), options.validFromSeconds) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(x),
                            options.validFromSeconds + options.validForSeconds) != nullptr &&
            X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1,
                                       0) == 1 &&
            X509_set_issuer_name(x, subject) == 1 && X509_set_pubkey(x, key.get()) == 1 &&
            addExtension(x, NID_basic_constraints, "critical,CA:FALSE") &&
            addExtension(x, NID_key_usage, "critical,digitalSignature") &&
            addExtension(x, NID_subject_key_identifier, "hash");
  if (ok && options.codeSigningUsage)
    ok = addExtension(x, NID_ext_key_usage, "critical,codeSigning");
  if (!ok || X509_sign(x, key.get(), EVP_sha256()) <= 0) return std::nullopt;
  return Identity{std::move(key), std::move(certificate)};
}

plist::Data certificateDer(const X509* certificate) {
  if (certificate == nullptr) return {};
  int length = i2d_X509(certificate, nullptr);
  if (length <= 0) return {};
  plist::Data der(static_cast<std::size_t>(length));
  unsigned char* cursor = der.data();
  if (i2d_X509(certificate, &cursor) != length) return {};
  return der;
}

plist::Data certificateSha1(const X509* certificate) {
  plist::Data der = certificateDer(certificate);
  if (der.empty()) return {};
  plist::Data digest(SHA_DIGEST_LENGTH);
  SHA1(der.data(), der.size(), digest.data());
  return digest;
}

bool allowsCodeSigning(X509* certificate) {
  // Without the extension OpenSSL reports every usage as allowed; a signer must name this one.
  if ((X509_get_extension_flags(certificate) & EXFLAG_XKUSAGE) == 0) return false;
  return (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) != 0;
}

std::string validityProblem(const X509* certificate, std::time_t now) {
  if (X509_cmp_time(X509_get0_notBefore(certificate), &now) > 0)
    return "certificate is not yet valid";
  if (X509_cmp_time(X509_get0_notAfter(certificate), &now) < 0) return "certificate has expired";
  return "";
}

bool keyMatchesCertificate(EVP_PKEY* key, X509* certificate) {
  return key != nullptr && X509_check_private_key(certificate, key) == 1;
}

std::string commonNameOf(const X509* certificate) {
  char buffer[256] = {};
  int length = X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, buffer,
                                         sizeof buffer);
  return length > 0 ? std::string(buffer, std::size_t(length)) : std::string();
}

}  // namespace gw::codesign
