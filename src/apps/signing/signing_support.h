// What the signing entry points share: the identity object behind GWSigningIdentityRef, a
// program's identity record, the configured maker anchor, and the status
// codes written in the log lines.
//
// Everything here is thread-safe and throws nothing.
#pragma once

#include <gatewise/signing.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/codesign/certificate.h"
#include "platform/codesign/cms_signature.h"

namespace gw {

class GWSigningIdentity {
 public:
  explicit GWSigningIdentity(codesign::Identity identity) : identity_(std::move(identity)) {}
  const codesign::Identity& identity() const { return identity_; }

 private:
  codesign::Identity identity_;
};

}  // namespace gw

namespace gw::signing {

// Status codes of the signing layer, as they appear in log lines.
inline constexpr int kStatusOk = 0;
inline constexpr int kStatusNoProgram = -2;          // nothing readable at the path
inline constexpr int kStatusUnsigned = -3;           // no signature
inline constexpr int kStatusBadSignature = -4;       // the signature does not parse or verify
inline constexpr int kStatusRecordFailed = -5;       // the identity record could not be made
inline constexpr int kStatusSigningFailed = -6;      // OpenSSL could not sign
inline constexpr int kStatusStoreFailed = -7;        // the signature could not be stored
inline constexpr int kStatusBadRequirement = -8;     // malformed requirement blob
inline constexpr int kStatusRequirementFailed = -9;  // the program does not satisfy the requirement
inline constexpr int kStatusChanged = -10;           // the program changed since it was signed

inline constexpr char kSigningCommonName[] = "Tutela Codesigning";

// "file:///a%20b/C.app/" -> "/a b/C.app"; a plain path comes back as it is.
std::string pathOfURL(std::string_view url);

// The identity record of the file or folder at path; nullopt when it cannot be made.
std::optional<plist::Data> identityRecordOf(const std::string& path);

// SHA-1 of bytes.
plist::Data sha1Of(const plist::Data& bytes);

// The host's maker anchor certificate; null when none is configured or it cannot be read (logged).
codesign::X509Ptr configuredMakerAnchor();

// The signature of path: the detached one when given, else the embedded one. nullopt with *status
// and *reason when there is none or it does not hold.
std::optional<codesign::SignatureContents> loadSignature(
    const std::string& path, const std::optional<plist::Data>& detachedSignature, int* status,
    std::string* reason);

}  // namespace gw::signing
