// Checking signatures: designated requirements, whether a program is signed (by the maker), and
// static validation against a recorded requirement.
#include <gatewise/bundle_info.h>
#include <gatewise/log.h>

#include <ctime>

#include "apps/signing/signing_support.h"
#include "platform/codesign/requirement_blob.h"

namespace {

using namespace gw::signing;

// A program is signed under its bundle identifier, or the one substituted for it.
std::string signingIdentifier(const std::string& path) {
  return GWCopyBundleIDFudgingIfNecessary(path, std::nullopt).value_or("");
}
namespace codesign = gw::codesign;

// The path of a program given by path or URL (the URL wins).
std::optional<std::string> programPath(const std::optional<std::string>& path,
                                       const std::optional<std::string>& url) {
  if (url) return pathOfURL(*url);
  return path;
}

// The designated requirement of a signature: its identifier and, for a signed program, the hash
// of the signer's certificate; for an ad hoc one (which anyone could make) the hash of the exact
// identity record it covers.
gw::plist::Data designatedRequirementOf(const std::string& path,
                                        const codesign::SignatureContents& signature) {
  codesign::RequirementExpression identity =
      signature.adHoc
          ? codesign::contentHashIs(sha1Of(signature.content))
          : codesign::certificateHashIs(codesign::kLeafCertificate,
                                        codesign::certificateSha1(signature.signer.get()));
  return codesign::compileRequirement(
      *codesign::allOf(codesign::identifierIs(signingIdentifier(path)), std::move(identity)));
}

codesign::RequirementSubject subjectOf(const std::string& path,
                                       const codesign::SignatureContents& signature,
                                       X509* makerAnchor) {
  codesign::RequirementSubject subject;
  subject.identifier = signingIdentifier(path);
  subject.contentHash = sha1Of(signature.content);
  subject.leaf = signature.signer.get();
  for (const auto& certificate : signature.certificates)
    subject.certificates.push_back(certificate.get());
  subject.makerAnchor = makerAnchor;
  return subject;
}

// Whether evaluating node may need the maker anchor (read from the host preferences only then).
bool mentionsMakerAnchor(const codesign::RequirementNode& node) {
  if (node.op == codesign::RequirementOp::MakerAnchor) return true;
  for (const auto& operand : node.operands)
    if (mentionsMakerAnchor(*operand)) return true;
  return false;
}

gw::GWValidation refused(int status, std::string reason) {
  GW_LOG(2, "SecStaticCodeCheckValidity returned err: %d", status);
  return gw::GWValidation{false, std::move(reason)};
}

// Static validation: the signature holds, covers the program as it is (unless flags skip it), and
// satisfies requirement when given.
gw::GWValidation validate(const std::string& path, const std::optional<gw::plist::Data>& detached,
                          const std::optional<gw::plist::Data>& requirementData,
                          std::uint32_t flags, bool makerRequirement) {
  GW_LOG(2, "path: %@", path);
  int status = kStatusOk;
  std::string reason;
  std::optional<codesign::RequirementExpression> requirement;
  if (requirementData) {
    requirement = codesign::parseRequirement(*requirementData, &reason);
    if (!requirement) {
      GW_LOG(0, "*** SecRequirementCreateWithData returned error %d", int(kStatusBadRequirement));
      return refused(kStatusBadRequirement, reason);
    }
    GW_LOG(2, "SecRequirementCreateWithData successful");
  }
  auto signature = loadSignature(path, detached, &status, &reason);
  if (!signature) {
    if (detached) GW_LOG(0, "*** SecCodeSetDetachedSignature returned: %d", status);
    return refused(status, reason);
  }
  if (detached) GW_LOG(2, "SecCodeSetDetachedSignature successful");

  constexpr std::uint32_t kSkipContent =
      gw::kGWDoNotValidateExecutable | gw::kGWDoNotValidateResources;
  if ((flags & kSkipContent) != kSkipContent) {
    std::optional<gw::plist::Data> record = identityRecordOf(path);
    if (!record) return refused(kStatusNoProgram, "program cannot be read");
    if (*record != signature->content)
      return refused(kStatusChanged, "program has changed since it was signed");
  }
  if (makerRequirement && !requirement) {
    std::string unused;
    requirement = codesign::parseRequirement(codesign::builtInMakerRequirement(), &unused);
  }
  if (requirement) {
    codesign::X509Ptr anchor =
        mentionsMakerAnchor(**requirement) ? configuredMakerAnchor() : nullptr;
    codesign::RequirementSubject subject = subjectOf(path, *signature, anchor.get());
    if (!codesign::evaluateRequirement(**requirement, subject))
      return refused(kStatusRequirementFailed, "program does not satisfy its requirement");
  }
  GW_LOG(2, "SecStaticCodeCheckValidity returned err: %d", 0);
  return gw::GWValidation{true, ""};
}

}  // namespace

namespace gw {

GWValidation GWValidateSignedApplicationWithReason(const std::optional<std::string>& path,
                                                   const std::optional<plist::Data>& detached,
                                                   const std::optional<plist::Data>& requirement,
                                                   std::uint32_t flags) {
  return returningOnException(__func__, __LINE__, GWValidation{false, "internal error"}, [&] {
    if (!path) return GWValidation{false, "no path"};
    return validate(*path, detached, requirement, flags, false);
  });
}

}  // namespace gw

std::optional<gw::plist::Data> GWCreateDesignatedRequirement(
    const std::optional<std::string>& path, const std::optional<std::string>& url,
    const std::optional<gw::plist::Data>& detachedSignature) try {
  GW_LOG(2, "Entering GWCreateDesignatedRequirement");
  std::optional<std::string> program = programPath(path, url);
  std::optional<gw::plist::Data> requirement;
  if (program) {
    if (detachedSignature) GW_LOG(2, "Setting detached signature");
    int status = kStatusOk;
    std::string reason;
    auto signature = loadSignature(*program, detachedSignature, &status, &reason);
    if (signature)
      requirement = designatedRequirementOf(*program, *signature);
    else if (detachedSignature)
      GW_LOG(0, "*** SecCodeSetDetachedSignature returned error %d", status);
  }
  GW_LOG(2, "GWCreateDesignatedRequirement returning %p",
         requirement ? static_cast<const void*>(requirement->data()) : nullptr);
  return requirement;
} catch (const std::exception& e) {
  GW_LOG_CAUGHT(e);
  return std::nullopt;
}

bool GWAppIsSigned(const std::optional<std::string>& path, const std::optional<std::string>& url) {
  return gw::returningOnException(__func__, __LINE__, false, [&] {
    std::optional<std::string> program = programPath(path, url);
    if (!program) return false;
    int status = kStatusOk;
    std::string reason;
    return loadSignature(*program, std::nullopt, &status, &reason).has_value() &&
           !signingIdentifier(*program).empty();
  });
}

bool GWAppIsSignedByMorvane(const std::optional<std::string>& path) {
  return gw::returningOnException(__func__, __LINE__, false, [&] {
    if (!path) return false;
    constexpr std::uint32_t kFlags = gw::kGWDoNotValidateExecutable | gw::kGWDoNotValidateResources;
    return validate(*path, std::nullopt, std::nullopt, kFlags, true).valid;
  });
}

bool GWValidateSignedApplication(const std::optional<std::string>& path,
                                 const std::optional<gw::plist::Data>& detachedSignature,
                                 const std::optional<gw::plist::Data>& requirementData,
                                 std::uint32_t flags) {
  if (!path) return false;
  gw::GWValidation result =
      gw::GWValidateSignedApplicationWithReason(path, detachedSignature, requirementData, flags);
  if (!result.valid) GW_LOG(1, "%@ is not valid: %@", *path, result.reason);
  return result.valid;
}
