// Requirement blobs: their exact bytes, round trips, refusal of malformed blobs, and evaluation
// against identifiers, certificates and content hashes.
#include <gtest/gtest.h>

#include "platform/codesign/certificate.h"
#include "platform/codesign/requirement_blob.h"

namespace {

using namespace gw::codesign;
using gw::plist::Data;

Data words(std::initializer_list<std::uint32_t> values) {
  Data out;
  for (std::uint32_t v : values)
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(std::uint8_t(v >> shift));
  return out;
}

TEST(SigningRequirementTest, BuiltInMakerRequirementIsTheSixteenByteBlob) {
  EXPECT_EQ(builtInMakerRequirement(), words({0xFADE0C00, 16, 1, 3}));
}

TEST(SigningRequirementTest, IdentifierOperandIsLengthPrefixedAndPaddedToFourBytes) {
  Data blob = compileRequirement(*identifierIs("abcde"));
  Data expected = words({0xFADE0C00, 28, 1, 2, 5});
  for (char c : std::string("abcde")) expected.push_back(std::uint8_t(c));
  expected.insert(expected.end(), {0, 0, 0});
  EXPECT_EQ(blob, expected);
}

TEST(SigningRequirementTest, CompiledRequirementsRoundTripAndRejectOtherSubjects) {
  auto first = makeSelfSignedIdentity("First");
  auto second = makeSelfSignedIdentity("Second");
  ASSERT_TRUE(first && second);
  Data blob = compileRequirement(
      *allOf(identifierIs("com.example.tool"),
             certificateHashIs(kLeafCertificate, certificateSha1(first->certificate.get()))));
  std::string reason;
  auto parsed = parseRequirement(blob, &reason);
  ASSERT_TRUE(parsed) << reason;
  EXPECT_EQ(compileRequirement(**parsed), blob);

  RequirementSubject subject;
  subject.identifier = "com.example.tool";
  subject.leaf = first->certificate.get();
  subject.certificates = {first->certificate.get()};
  EXPECT_TRUE(evaluateRequirement(**parsed, subject));

  RequirementSubject otherIdentifier = subject;
  otherIdentifier.identifier = "com.example.tool2";
  EXPECT_FALSE(evaluateRequirement(**parsed, otherIdentifier));

  RequirementSubject otherCertificate = subject;
  otherCertificate.leaf = second->certificate.get();
  otherCertificate.certificates = {second->certificate.get()};
  EXPECT_FALSE(evaluateRequirement(**parsed, otherCertificate));

  RequirementSubject adHoc = subject;
  adHoc.leaf = nullptr;
  adHoc.certificates.clear();
  EXPECT_FALSE(evaluateRequirement(**parsed, adHoc));

  // For a self-signed certificate the anchor is the leaf itself.
  auto anchored = certificateHashIs(kAnchorCertificate, certificateSha1(first->certificate.get()));
  EXPECT_TRUE(evaluateRequirement(*anchored, subject));
}

TEST(SigningRequirementTest, MakerAnchorPassesOnlyForTheConfiguredAnchor) {
  auto signer = makeSelfSignedIdentity("Signer");
  auto stranger = makeSelfSignedIdentity("Stranger");
  ASSERT_TRUE(signer && stranger);
  RequirementSubject subject;
  subject.leaf = signer->certificate.get();
  subject.certificates = {signer->certificate.get()};
  auto maker = makerAnchor();
  EXPECT_FALSE(evaluateRequirement(*maker, subject)) << "no anchor configured";
  subject.makerAnchor = stranger->certificate.get();
  EXPECT_FALSE(evaluateRequirement(*maker, subject));
  subject.makerAnchor = signer->certificate.get();
  EXPECT_TRUE(evaluateRequirement(*maker, subject));
}

TEST(SigningRequirementTest, ContentHashAndLogicOperators) {
  Data hash(20, 0xAB);
  auto node = contentHashIs(hash);
  RequirementSubject subject;
  subject.contentHash = hash;
  EXPECT_TRUE(evaluateRequirement(*node, subject));
  subject.contentHash[19] ^= 1;
  EXPECT_FALSE(evaluateRequirement(*node, subject));

  // not(false) or false -> true; and(true, not(true)) -> false, from raw bytes.
  std::string reason;
  auto orBlob = parseRequirement(words({0xFADE0C00, 28, 1, 7, 9, 0, 0}), &reason);
  ASSERT_TRUE(orBlob) << reason;
  EXPECT_TRUE(evaluateRequirement(**orBlob, subject));
  auto andBlob = parseRequirement(words({0xFADE0C00, 28, 1, 6, 1, 9, 1}), &reason);
  ASSERT_TRUE(andBlob) << reason;
  EXPECT_FALSE(evaluateRequirement(**andBlob, subject));
}

TEST(SigningRequirementTest, MalformedBlobsAreRefusedWithAReason) {
  struct Case {
    const char* name;
    Data blob;
  };
  Data nested = words({0xFADE0C00, 0, 1});
  for (int i = 0; i < 40; ++i) {
    Data not_ = words({9});
    nested.insert(nested.end(), not_.begin(), not_.end());
  }
  Data tail = words({1});
  nested.insert(nested.end(), tail.begin(), tail.end());
  nested[7] = std::uint8_t(nested.size());
  const Case cases[] = {
      {"empty", {}},
      {"short header", words({0xFADE0C00, 8})},
      {"bad magic", words({0xFADE0C01, 16, 1, 3})},
      {"length too long", words({0xFADE0C00, 20, 1, 3})},
      {"length too short", words({0xFADE0C00, 12, 1, 3})},
      {"not expression form", words({0xFADE0C00, 16, 2, 3})},
      {"unknown operator", words({0xFADE0C00, 16, 1, 5})},
      {"huge operator", words({0xFADE0C00, 16, 1, 0xFFFFFFFF})},
      {"operand past end", words({0xFADE0C00, 20, 1, 2, 0xFFFFFFFF})},
      {"missing operand", words({0xFADE0C00, 20, 1, 6, 1})},
      {"trailing bytes", words({0xFADE0C00, 20, 1, 1, 1})},
      {"too deep", nested},
  };
  for (const Case& c : cases) {
    std::string reason;
    EXPECT_FALSE(parseRequirement(c.blob, &reason)) << c.name;
    EXPECT_FALSE(reason.empty()) << c.name;
  }
}

}  // namespace
