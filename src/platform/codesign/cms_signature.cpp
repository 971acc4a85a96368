#include "platform/codesign/cms_signature.h"

#include <openssl/err.h>
#include <openssl/objects.h>

namespace gw::codesign {
namespace {

BioPtr memoryBioOf(const plist::Data& bytes) {
  return BioPtr(BIO_new_mem_buf(bytes.data(), int(bytes.size())));
}

plist::Data bioContents(BIO* bio) {
  char* bytes = nullptr;
  long length = BIO_get_mem_data(bio, &bytes);
  if (length <= 0 || bytes == nullptr) return {};
  return plist::Data(bytes, bytes + length);
}

// A SignedData without signers: CMS_final refuses to finish one, so the content is placed by hand
// (no signer means no digest to compute over it).
CmsPtr adHocSignedData(const plist::Data& content) {
  CmsPtr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_BINARY | CMS_PARTIAL));
  if (!cms) return nullptr;
  ASN1_OCTET_STRING** slot = CMS_get0_content(cms.get());
  if (slot == nullptr || *slot == nullptr ||
      ASN1_OCTET_STRING_set(*slot, content.data(), int(content.size())) != 1)
    return nullptr;
  return cms;
}

}  // namespace

plist::Data signContent(const plist::Data& content, const Identity* identity) {
  if (content.size() > kMaxSignatureSize) return {};
  CmsPtr cms;
  if (identity != nullptr) {
    BioPtr input = memoryBioOf(content);
    // CMS_BINARY keeps the record byte for byte.
    if (input)
      cms.reset(CMS_sign(identity->certificate.get(), identity->key.get(), nullptr, input.get(),
                         CMS_BINARY));
  } else {
    cms = adHocSignedData(content);
  }
  if (!cms) {
    ERR_clear_error();
    return {};
  }
  BioPtr output(BIO_new(BIO_s_mem()));
  if (!output || i2d_CMS_bio(output.get(), cms.get()) != 1) return {};
  return bioContents(output.get());
}

std::optional<SignatureContents> readSignature(const plist::Data& der, std::time_t now,
                                               std::string* reason) {
  auto refuse = [&](std::string why) -> std::optional<SignatureContents> {
    ERR_clear_error();
    *reason = std::move(why);
    return std::nullopt;
  };
  if (der.empty()) return refuse("signature is empty");
  if (der.size() > kMaxSignatureSize) return refuse("signature is too large");
  const unsigned char* cursor = der.data();
  CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &cursor, long(der.size())));
  if (!cms) return refuse("signature is not CMS data");
  if (cursor != der.data() + der.size()) return refuse("signature has trailing bytes");
  if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed)
    return refuse("signature is not signed data");
  ASN1_OCTET_STRING** content = CMS_get0_content(cms.get());
  if (content == nullptr || *content == nullptr) return refuse("signature carries no content");

  SignatureContents result;
  result.content.assign((*content)->data, (*content)->data + (*content)->length);
  if (STACK_OF(X509)* certificates = CMS_get1_certs(cms.get())) {
    for (int i = 0; i < sk_X509_num(certificates); ++i)
      result.certificates.emplace_back(sk_X509_value(certificates, i));
    sk_X509_free(certificates);  // the references moved into result.certificates
  }
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms.get());
  int signerCount = signers == nullptr ? 0 : sk_CMS_SignerInfo_num(signers);
  if (signerCount == 0) {
    result.adHoc = true;
    return result;
  }
  if (signerCount != 1) return refuse("signature has more than one signer");

  // The signer's own certificate chain is judged by the requirement, not by a system trust store.
  BioPtr sink(BIO_new(BIO_s_mem()));
  if (!sink || CMS_verify(cms.get(), nullptr, nullptr, nullptr, sink.get(),
                          CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) != 1)
    return refuse("signature does not verify");
  if (bioContents(sink.get()) != result.content) return refuse("signed content differs");
  STACK_OF(X509)* signerCertificates = CMS_get0_signers(cms.get());
  if (signerCertificates == nullptr || sk_X509_num(signerCertificates) != 1) {
    sk_X509_free(signerCertificates);
    return refuse("signer certificate is missing");
  }
  X509* signer = sk_X509_value(signerCertificates, 0);
  X509_up_ref(signer);
  result.signer.reset(signer);
  sk_X509_free(signerCertificates);
  if (std::string problem = validityProblem(signer, now); !problem.empty()) return refuse(problem);
  if (!allowsCodeSigning(signer)) return refuse("certificate does not allow code signing");
  return result;
}

}  // namespace gw::codesign
