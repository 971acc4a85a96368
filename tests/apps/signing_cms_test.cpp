// Signatures as data: what the signer writes, and what the reader refuses (garbage, truncation,
// foreign CMS, bad certificates, a certificate for another key).
#include <gtest/gtest.h>
#include <openssl/cms.h>
#include <openssl/x509.h>

#include <ctime>

#include "platform/codesign/certificate.h"
#include "platform/codesign/cms_signature.h"

namespace {

using namespace gw::codesign;
using gw::plist::Data;

const Data kRecord = {'4', '2', '5', '3', 0, 0, 0, 1, 9, 8, 7, 6};

std::string refusalOf(const Data& der) {
  std::string reason;
  EXPECT_FALSE(readSignature(der, std::time(nullptr), &reason));
  return reason;
}

TEST(SigningCmsTest, SignedAndAdHocSignaturesCarryTheRecord) {
  auto identity = makeSelfSignedIdentity("Tutela Codesigning");
  ASSERT_TRUE(identity);
  std::string reason;

  Data signedDer = signContent(kRecord, &*identity);
  auto contents = readSignature(signedDer, std::time(nullptr), &reason);
  ASSERT_TRUE(contents) << reason;
  EXPECT_FALSE(contents->adHoc);
  EXPECT_EQ(contents->content, kRecord);
  ASSERT_TRUE(contents->signer);
  EXPECT_EQ(certificateDer(contents->signer.get()), certificateDer(identity->certificate.get()));
  EXPECT_EQ(commonNameOf(contents->signer.get()), "Tutela Codesigning");

  Data adHocDer = signContent(kRecord, nullptr);
  auto adHoc = readSignature(adHocDer, std::time(nullptr), &reason);
  ASSERT_TRUE(adHoc) << reason;
  EXPECT_TRUE(adHoc->adHoc);
  EXPECT_FALSE(adHoc->signer);
  EXPECT_EQ(adHoc->content, kRecord);
}

TEST(SigningCmsTest, CertificatesThatMayNotSignAreRefused) {
  const std::time_t now = std::time(nullptr);
  struct Case {
    const char* name;
    CertificateOptions options;
    const char* reason;
  };
  const Case cases[] = {
      {"expired", {-7200, 3600, true}, "certificate has expired"},
      {"not yet valid", {3600, 3600, true}, "certificate is not yet valid"},
      {"no code-signing usage", {-60, 3600, false}, "certificate does not allow code signing"},
  };
  for (const Case& c : cases) {
    auto identity = makeSelfSignedIdentity("Faulty", c.options);
    ASSERT_TRUE(identity) << c.name;
    std::string reason;
    EXPECT_FALSE(readSignature(signContent(kRecord, &*identity), now, &reason)) << c.name;
    EXPECT_EQ(reason, c.reason) << c.name;
  }
}

TEST(SigningCmsTest, CertificateForAnotherKeyDoesNotVerify) {
  auto signer = makeSelfSignedIdentity("Signer");
  auto other = makeSelfSignedIdentity("Signer");
  ASSERT_TRUE(signer && other);
  // A certificate with the signer's issuer and serial number but someone else's key.
  X509Ptr forged(X509_dup(signer->certificate.get()));
  ASSERT_TRUE(forged);
  ASSERT_EQ(X509_set_pubkey(forged.get(), other->key.get()), 1);
  ASSERT_GT(X509_sign(forged.get(), other->key.get(), EVP_sha256()), 0);

  BioPtr input(BIO_new_mem_buf(kRecord.data(), int(kRecord.size())));
  CmsPtr cms(CMS_sign(signer->certificate.get(), signer->key.get(), nullptr, input.get(),
                      CMS_BINARY | CMS_NOCERTS));
  ASSERT_TRUE(cms);
  ASSERT_EQ(CMS_add1_cert(cms.get(), forged.get()), 1);
  BioPtr output(BIO_new(BIO_s_mem()));
  ASSERT_EQ(i2d_CMS_bio(output.get(), cms.get()), 1);
  char* bytes = nullptr;
  long length = BIO_get_mem_data(output.get(), &bytes);
  EXPECT_EQ(refusalOf(Data(bytes, bytes + length)), "signature does not verify");
}

TEST(SigningCmsTest, GarbageTruncatedAndForeignDataAreRefused) {
  auto identity = makeSelfSignedIdentity("Tutela Codesigning");
  ASSERT_TRUE(identity);
  Data good = signContent(kRecord, &*identity);
  ASSERT_FALSE(good.empty());

  EXPECT_EQ(refusalOf({}), "signature is empty");
  EXPECT_EQ(refusalOf(Data(64, 0x30)), "signature is not CMS data");
  for (std::size_t cut : {std::size_t(1), good.size() / 2, good.size() - 1})
    EXPECT_EQ(refusalOf(Data(good.begin(), good.begin() + long(cut))), "signature is not CMS data")
        << "cut at " << cut;
  Data trailing = good;
  trailing.push_back(0);
  EXPECT_EQ(refusalOf(trailing), "signature has trailing bytes");
  EXPECT_EQ(refusalOf(Data(kMaxSignatureSize + 1, 0)), "signature is too large");

  // A CMS structure of another type: plain data.
  BioPtr input(BIO_new_mem_buf(kRecord.data(), int(kRecord.size())));
  CmsPtr plain(CMS_data_create(input.get(), CMS_BINARY));
  ASSERT_TRUE(plain);
  BioPtr output(BIO_new(BIO_s_mem()));
  ASSERT_EQ(i2d_CMS_bio(output.get(), plain.get()), 1);
  char* bytes = nullptr;
  long length = BIO_get_mem_data(output.get(), &bytes);
  EXPECT_EQ(refusalOf(Data(bytes, bytes + length)), "signature is not signed data");

  // Every single flipped byte of the signed content part must not let a different record pass.
  for (std::size_t i = 0; i < good.size(); i += 7) {
    Data flipped = good;
    flipped[i] ^= 0x01;
    std::string reason;
    auto contents = readSignature(flipped, std::time(nullptr), &reason);
    if (contents) {
      EXPECT_EQ(contents->content, kRecord) << "byte " << i;
    }
  }
}

}  // namespace
