// Signatures: CMS SignedData (DER) whose encapsulated content is a program's identity record.
//
// A signed signature has exactly one signer and carries the signer's certificate; an ad hoc one is
// a SignedData with no signer at all, so it only records the identity record. readSignature parses
// and checks one: its shape, the signer's signature over the content, and the signer certificate's
// validity period and code-signing usage. Trust in the certificate (who issued it) is left to the
// requirement that the caller evaluates. Inputs are bounded (kMaxSignatureSize); garbage, truncated
// or foreign data gives a reason, never a crash. Thread-safe; nothing throws.
#pragma once

#include <gatewise/plist.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "platform/codesign/certificate.h"

namespace gw::codesign {

inline constexpr std::size_t kMaxSignatureSize = 1 << 20;

// Signs content with identity, or makes an ad hoc signature when identity is null. Empty on
// failure.
plist::Data signContent(const plist::Data& content, const Identity* identity);

struct SignatureContents {
  bool adHoc = false;
  plist::Data content;                // the identity record it covers
  X509Ptr signer;                     // null when ad hoc
  std::vector<X509Ptr> certificates;  // every certificate the signature carries
};

// The checked contents of der; nullopt with *reason set when it does not hold a good signature.
std::optional<SignatureContents> readSignature(const plist::Data& der, std::time_t now,
                                               std::string* reason);

}  // namespace gw::codesign
