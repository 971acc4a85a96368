// Requirement blobs: the compiled form of a code requirement, and their evaluation.
//
// Layout (big-endian 32-bit words; docs/requirement-blob.md has the whole format):
//   0 magic 0xFADE0C00 | 4 length of the whole blob | 8 kind, 1 = expression | 12 expression
// An expression is an operator word followed by its operands; data operands are a length word and
// the bytes, padded with zeros to a multiple of four. Operators understood:
//   0 false, 1 true, 2 identifier <data>, 3 maker anchor, 4 certificate hash <slot> <data>,
//   6 and <expr> <expr>, 7 or <expr> <expr>, 8 content hash <data>, 9 not <expr>.
// Certificate slots: 0 the leaf (signer), n the n-th issuer above it, -1 the anchor (the top of
// the chain the signature carries). Hashes are SHA-1 of a certificate's DER / of the identity
// record.
//
// parseRequirement refuses a wrong magic, a length that is not the blob's size, an unknown kind or
// operator, operands that run past the end, trailing bytes and nesting deeper than 32. Pure and
// thread-safe; nothing throws.
#pragma once

#include <gatewise/plist.h>
#include <openssl/x509.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace gw::codesign {

inline constexpr std::uint32_t kRequirementMagic = 0xFADE0C00;
inline constexpr std::uint32_t kExpressionForm = 1;
inline constexpr std::size_t kMaxRequirementSize = 64 * 1024;

enum class RequirementOp : std::uint32_t {
  False = 0,
  True = 1,
  Identifier = 2,
  MakerAnchor = 3,
  CertificateHash = 4,
  And = 6,
  Or = 7,
  ContentHash = 8,
  Not = 9,
};

inline constexpr std::int32_t kLeafCertificate = 0;
inline constexpr std::int32_t kAnchorCertificate = -1;

struct RequirementNode {
  RequirementOp op = RequirementOp::False;
  std::int32_t slot = 0;                                   // CertificateHash
  plist::Data data;                                        // Identifier, hashes
  std::vector<std::unique_ptr<RequirementNode>> operands;  // And, Or, Not
};
using RequirementExpression = std::unique_ptr<RequirementNode>;

// Builders for the expressions this system writes.
RequirementExpression identifierIs(std::string_view identifier);
RequirementExpression certificateHashIs(std::int32_t slot, plist::Data sha1);
RequirementExpression contentHashIs(plist::Data sha1);
RequirementExpression makerAnchor();
RequirementExpression allOf(RequirementExpression left, RequirementExpression right);

plist::Data compileRequirement(const RequirementNode& expression);
// nullopt with *reason set for a malformed blob.
std::optional<RequirementExpression> parseRequirement(const plist::Data& blob, std::string* reason);

// What a requirement is checked against.
struct RequirementSubject {
  std::string identifier;
  plist::Data contentHash;          // SHA-1 of the identity record
  X509* leaf = nullptr;             // null for an ad hoc signature
  std::vector<X509*> certificates;  // all the signature carries, leaf included
  X509* makerAnchor = nullptr;      // the host's configured anchor; null: none configured
};

bool evaluateRequirement(const RequirementNode& expression, const RequirementSubject& subject);

// The 16-byte maker requirement: magic, length 16, expression form, maker anchor.
plist::Data builtInMakerRequirement();

}  // namespace gw::codesign
