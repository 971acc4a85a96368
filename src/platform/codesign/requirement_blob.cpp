#include "platform/codesign/requirement_blob.h"

#include <openssl/x509_vfy.h>

#include "platform/codesign/certificate.h"
#include "platform/codesign/openssl_handles.h"

namespace gw::codesign {
namespace {

constexpr int kMaxDepth = 32;

void putWord(plist::Data& out, std::uint32_t word) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(std::uint8_t(word >> shift));
}

void putData(plist::Data& out, const plist::Data& data) {
  putWord(out, std::uint32_t(data.size()));
  out.insert(out.end(), data.begin(), data.end());
  while (out.size() % 4 != 0) out.push_back(0);
}

void compileInto(plist::Data& out, const RequirementNode& node) {
  putWord(out, std::uint32_t(node.op));
  switch (node.op) {
    case RequirementOp::Identifier:
    case RequirementOp::ContentHash:
      putData(out, node.data);
      break;
    case RequirementOp::CertificateHash:
      putWord(out, std::uint32_t(node.slot));
      putData(out, node.data);
      break;
    default:
      break;
  }
  for (const auto& operand : node.operands) compileInto(out, *operand);
}

class Reader {
 public:
  Reader(const plist::Data& blob, std::size_t start) : blob_(blob), position_(start) {}

  bool word(std::uint32_t* value) {
    if (blob_.size() - position_ < 4) return fail("requirement is truncated");
    *value = std::uint32_t(blob_[position_]) << 24 | std::uint32_t(blob_[position_ + 1]) << 16 |
             std::uint32_t(blob_[position_ + 2]) << 8 | blob_[position_ + 3];
    position_ += 4;
    return true;
  }

  bool data(plist::Data* out) {
    std::uint32_t length = 0;
    if (!word(&length)) return false;
    std::size_t padded = (std::size_t(length) + 3) & ~std::size_t(3);
    if (padded > blob_.size() - position_) return fail("requirement operand runs past its end");
    out->assign(blob_.begin() + long(position_), blob_.begin() + long(position_ + length));
    position_ += padded;
    return true;
  }

  RequirementExpression expression(int depth) {
    if (depth > kMaxDepth) return failNull("requirement is nested too deeply");
    std::uint32_t op = 0;
    if (!word(&op)) return nullptr;
    auto node = std::make_unique<RequirementNode>();
    node->op = RequirementOp(op);
    int operandCount = 0;
    switch (node->op) {
      case RequirementOp::False:
      case RequirementOp::True:
      case RequirementOp::MakerAnchor:
        break;
      case RequirementOp::Identifier:
      case RequirementOp::ContentHash:
        if (!data(&node->data)) return nullptr;
        break;
      case RequirementOp::CertificateHash: {
        std::uint32_t slot = 0;
        if (!word(&slot) || !data(&node->data)) return nullptr;
        node->slot = std::int32_t(slot);
        break;
      }
      case RequirementOp::And:
      case RequirementOp::Or:
        operandCount = 2;
        break;
      case RequirementOp::Not:
        operandCount = 1;
        break;
      default:
        return failNull("requirement has unknown operator " + std::to_string(op));
    }
    for (int i = 0; i < operandCount; ++i) {
      RequirementExpression operand = expression(depth + 1);
      if (!operand) return nullptr;
      node->operands.push_back(std::move(operand));
    }
    return node;
  }

  std::size_t position() const { return position_; }
  const std::string& reason() const { return reason_; }

 private:
  bool fail(std::string reason) {
    if (reason_.empty()) reason_ = std::move(reason);
    return false;
  }
  RequirementExpression failNull(std::string reason) {
    fail(std::move(reason));
    return nullptr;
  }

  const plist::Data& blob_;
  std::size_t position_;
  std::string reason_;
};

// The chain the signature carries, from the leaf up: each step takes the certificate that issued
// the previous one, until a self-issued certificate or one whose issuer is not carried.
std::vector<X509*> chainFrom(X509* leaf, const std::vector<X509*>& carried) {
  std::vector<X509*> chain{leaf};
  while (chain.size() <= carried.size()) {
    X509* current = chain.back();
    if (X509_check_issued(current, current) == X509_V_OK) break;
    X509* issuer = nullptr;
    for (X509* candidate : carried)
      if (candidate != current && X509_check_issued(candidate, current) == X509_V_OK)
        issuer = candidate;
    if (issuer == nullptr) break;
    chain.push_back(issuer);
  }
  return chain;
}

bool certificateHashMatches(const RequirementNode& node, const RequirementSubject& subject) {
  if (subject.leaf == nullptr) return false;
  std::vector<X509*> chain = chainFrom(subject.leaf, subject.certificates);
  X509* certificate = nullptr;
  if (node.slot == kAnchorCertificate)
    certificate = chain.back();
  else if (node.slot >= 0 && std::size_t(node.slot) < chain.size())
    certificate = chain[std::size_t(node.slot)];
  return certificate != nullptr && certificateSha1(certificate) == node.data;
}

bool anchoredAtMaker(const RequirementSubject& subject) {
  if (subject.leaf == nullptr || subject.makerAnchor == nullptr) return false;
  X509StorePtr store(X509_STORE_new());
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  STACK_OF(X509)* untrusted = sk_X509_new_null();
  bool anchored = false;
  if (store && context && untrusted && X509_STORE_add_cert(store.get(), subject.makerAnchor) == 1) {
    for (X509* certificate : subject.certificates) sk_X509_push(untrusted, certificate);
    if (X509_STORE_CTX_init(context.get(), store.get(), subject.leaf, untrusted) == 1) {
      X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_ANY);
      anchored = X509_verify_cert(context.get()) == 1;
    }
  }
  sk_X509_free(untrusted);
  return anchored;
}

}  // namespace

RequirementExpression identifierIs(std::string_view identifier) {
  auto node = std::make_unique<RequirementNode>();
  node->op = RequirementOp::Identifier;
  node->data.assign(identifier.begin(), identifier.end());
  return node;
}

RequirementExpression certificateHashIs(std::int32_t slot, plist::Data sha1) {
  auto node = std::make_unique<RequirementNode>();
  node->op = RequirementOp::CertificateHash;
  node->slot = slot;
  node->data = std::move(sha1);
  return node;
}

RequirementExpression contentHashIs(plist::Data sha1) {
  auto node = std::make_unique<RequirementNode>();
  node->op = RequirementOp::ContentHash;
  node->data = std::move(sha1);
  return node;
}

RequirementExpression makerAnchor() {
  auto node = std::make_unique<RequirementNode>();
  node->op = RequirementOp::MakerAnchor;
  return node;
}

RequirementExpression allOf(RequirementExpression left, RequirementExpression right) {
  auto node = std::make_unique<RequirementNode>();
  node->op = RequirementOp::And;
  node->operands.push_back(std::move(left));
  node->operands.push_back(std::move(right));
  return node;
}

plist::Data compileRequirement(const RequirementNode& expression) {
  plist::Data blob;
  putWord(blob, kRequirementMagic);
  putWord(blob, 0);  // length, filled in below
  putWord(blob, kExpressionForm);
  compileInto(blob, expression);
  std::uint32_t length = std::uint32_t(blob.size());
  for (int i = 0; i < 4; ++i) blob[std::size_t(4 + i)] = std::uint8_t(length >> (24 - 8 * i));
  return blob;
}

std::optional<RequirementExpression> parseRequirement(const plist::Data& blob,
                                                      std::string* reason) {
  if (blob.size() > kMaxRequirementSize) {
    *reason = "requirement is too large";
    return std::nullopt;
  }
  Reader header(blob, 0);
  std::uint32_t magic = 0, length = 0, kind = 0;
  if (!header.word(&magic) || !header.word(&length) || !header.word(&kind)) {
    *reason = header.reason();
    return std::nullopt;
  }
  if (magic != kRequirementMagic) {
    *reason = "requirement has a bad magic number";
    return std::nullopt;
  }
  if (length != blob.size()) {
    *reason = "requirement length does not match its size";
    return std::nullopt;
  }
  if (kind != kExpressionForm) {
    *reason = "requirement is not in expression form";
    return std::nullopt;
  }
  Reader body(blob, header.position());
  RequirementExpression expression = body.expression(0);
  if (!expression) {
    *reason = body.reason();
    return std::nullopt;
  }
  if (body.position() != blob.size()) {
    *reason = "requirement has trailing bytes";
    return std::nullopt;
  }
  return expression;
}

bool evaluateRequirement(const RequirementNode& node, const RequirementSubject& subject) {
  switch (node.op) {
    case RequirementOp::True:
      return true;
    case RequirementOp::Identifier:
      return std::string(node.data.begin(), node.data.end()) == subject.identifier;
    case RequirementOp::MakerAnchor:
      return anchoredAtMaker(subject);
    case RequirementOp::CertificateHash:
      return certificateHashMatches(node, subject);
    case RequirementOp::ContentHash:
      return !subject.contentHash.empty() && node.data == subject.contentHash;
    case RequirementOp::And:
      return evaluateRequirement(*node.operands[0], subject) &&
             evaluateRequirement(*node.operands[1], subject);
    case RequirementOp::Or:
      return evaluateRequirement(*node.operands[0], subject) ||
             evaluateRequirement(*node.operands[1], subject);
    case RequirementOp::Not:
      return !evaluateRequirement(*node.operands[0], subject);
    default:
      return false;
  }
}

plist::Data builtInMakerRequirement() { return compileRequirement(*makerAnchor()); }

}  // namespace gw::codesign
