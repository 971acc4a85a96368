// Code-signing identities: a private key with its X.509 certificate, and the checks a signer's
// certificate must pass.
//
// makeSelfSignedIdentity creates a fresh P-256 key pair and a self-signed certificate for it whose
// extended key usage (critical) is code signing; the options let tests make the faulty certificates
// a checker must refuse. All functions are pure and thread-safe; nothing throws; an Identity owns
// its key and certificate.
#pragma once

#include <gatewise/plist.h>

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "platform/codesign/openssl_handles.h"

namespace gw::codesign {

struct Identity {
  PkeyPtr key;
  X509Ptr certificate;
};

struct CertificateOptions {
  // notBefore, relative to now: a minute back, so that a certificate made now also verifies against
  // a time read a moment before it was made.
  long validFromSeconds = -60;
  long validForSeconds = 10L * 365 * 86400;  // notAfter, relative to notBefore
  bool codeSigningUsage = true;              // include the critical code-signing key usage
};

// nullopt when OpenSSL fails (logged by the caller).
std::optional<Identity> makeSelfSignedIdentity(std::string_view commonName,
                                               const CertificateOptions& options = {});

// The certificate's DER encoding; empty on failure.
plist::Data certificateDer(const X509* certificate);
// SHA-1 of the certificate's DER encoding (20 bytes); empty on failure.
plist::Data certificateSha1(const X509* certificate);

// Whether the certificate carries an extended-key-usage extension that allows code signing.
bool allowsCodeSigning(X509* certificate);
// "" when the certificate is valid at `now`; otherwise why not.
std::string validityProblem(const X509* certificate, std::time_t now);
// Whether key is the private half of the certificate's public key.
bool keyMatchesCertificate(EVP_PKEY* key, X509* certificate);

// The certificate's subject common name, or "".
std::string commonNameOf(const X509* certificate);

}  // namespace gw::codesign
