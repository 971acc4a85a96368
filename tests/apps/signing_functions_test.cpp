// The signing entry points on real files in a temporary root: embedded and detached signing,
// validation, designated requirements, keychains, the maker requirement and the daemon notice.
#include <gatewise/core.h>
#include <gatewise/identity.h>
#include <gatewise/signing.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "apps/signing/signing_support.h"
#include "platform/codesign/certificate.h"
#include "platform/codesign/requirement_blob.h"
#include "support/log_capture.h"
#include "support/logind_standin.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gw::plist::Data;

// An application bundle "com.example.editor" in /Applications; returns its path.
std::string writeEditorApp(const gwtest::TempRoot& root) {
  root.writeFile("/Applications/Editor.app/Contents/Info.plist",
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                 "<key>CFBundleIdentifier</key><string>com.example.editor</string>"
                 "<key>CFBundleExecutable</key><string>Editor</string></dict></plist>\n");
  root.writeFile("/Applications/Editor.app/Contents/MacOS/Editor", "binary");
  return root.at("/Applications/Editor.app");
}

class SigningTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::unsetenv("GATEWISE_BOOTSTRAP_DIR");
    root_.makeFolder("/tmp");
    program_ = root_.writeFile("/Applications/tool", "#!/bin/sh\necho hello\n");
  }

  // Whether the temporary root's file system keeps our signature attribute.
  bool attributesSupported() {
    std::string probe = root_.writeFile("/probe", "x");
    std::string name = ::geteuid() == 0 ? "trusted.gatewise.probe" : "user.gatewise.probe";
    return ::setxattr(probe.c_str(), name.c_str(), "1", 1, 0) == 0;
  }

  Data recordOf(const std::string& path) {
    std::uint8_t* record = nullptr;
    std::uint32_t length = 0;
    EXPECT_EQ(IdentityCreateWithPath(path.c_str(), nullptr, &record, &length), 0);
    Data data(record, record + length);
    std::free(record);
    return data;
  }

  bool tmpIsEmpty() { return std::filesystem::is_empty(root_.at("/tmp")); }

  gwtest::TempRoot root_;
  gwtest::ScopedEnvironment dataHome_{"XDG_DATA_HOME", root_.at("/home/data").c_str()};
  std::string program_;
};

TEST_F(SigningTest, TemporaryKeychainHoldsACodeSigningIdentity) {
  gw::GWKeychainRef keychain = GWCreateTempKeychainForCodesigning();
  ASSERT_TRUE(keychain);
  std::string folder = root_.at(::geteuid() == 0 ? "/var/db/" : "/tmp/");
  EXPECT_EQ(keychain->path.rfind(folder + "com.morvane.qrm.", 0), 0u) << keychain->path;
  struct stat info;
  ASSERT_EQ(::lstat(keychain->path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(keychain->password.size(), 127u);
  EXPECT_EQ(keychain->password.find_first_not_of(
                "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!@#$%^&*()-=+_{}[]:;"
                "<>?,./"),
            std::string::npos);
  EXPECT_NE(GWCreateTempKeychainForCodesigning()->password, keychain->password);

  gw::GWSigningIdentityRef identity = CopyAppSigningIdentity(keychain);
  ASSERT_TRUE(identity);
  EXPECT_EQ(gw::GWSigningIdentityCommonName(identity), "Tutela Codesigning");
  EXPECT_FALSE(CopyAppSigningIdentity(
      std::make_shared<const gw::GWKeychain>(gw::GWKeychain{keychain->path, "wrong"})));
  EXPECT_FALSE(CopyAppSigningIdentity(nullptr));
}

TEST_F(SigningTest, EmbeddedSignatureValidatesUntilTheProgramChanges) {
  if (!attributesSupported()) GTEST_SKIP() << "the temporary root keeps no extended attributes";
  gw::GWKeychainRef keychain = GWCreateTempKeychainForCodesigning();
  ASSERT_TRUE(keychain);
  EXPECT_FALSE(GWAppIsSigned(program_, std::nullopt));
  ASSERT_TRUE(GWCreateAppSignature(program_, keychain, nullptr, false));
  EXPECT_TRUE(GWAppIsSigned(program_, std::nullopt));
  EXPECT_TRUE(GWAppIsSigned(std::nullopt, "file://" + program_));
  EXPECT_TRUE(GWValidateSignedApplication(program_, std::nullopt, std::nullopt, 4));

  std::optional<Data> requirement =
      GWCreateDesignatedRequirement(program_, std::nullopt, std::nullopt);
  ASSERT_TRUE(requirement);
  EXPECT_TRUE(GWValidateSignedApplication(program_, std::nullopt, requirement, 4));

  {
    gwtest::LogCapture log;
    EXPECT_FALSE(GWCreateAppSignature(program_, keychain, nullptr, false));
    EXPECT_TRUE(log.contains(program_ + " is already signed"));
  }

  // A renamed program keeps its record but not its identifier.
  std::string renamed = root_.at("/Applications/other");
  ASSERT_EQ(::rename(program_.c_str(), renamed.c_str()), 0);
  EXPECT_TRUE(GWValidateSignedApplication(renamed, std::nullopt, std::nullopt, 4));
  EXPECT_FALSE(GWValidateSignedApplication(renamed, std::nullopt, requirement, 4));
  ASSERT_EQ(::rename(renamed.c_str(), program_.c_str()), 0);

  // One byte changed.
  { std::ofstream(program_, std::ios::in | std::ios::out).put('#').flush(); }
  EXPECT_TRUE(GWValidateSignedApplication(program_, std::nullopt, std::nullopt, 4));
  {
    std::fstream file(program_, std::ios::in | std::ios::out);
    file.seekp(3);
    file.put('X');
  }
  gw::GWValidation result =
      gw::GWValidateSignedApplicationWithReason(program_, std::nullopt, requirement, 4);
  EXPECT_FALSE(result.valid);
  EXPECT_EQ(result.reason, "program has changed since it was signed");
}

TEST_F(SigningTest, DetachedSignatureVerifiesWithTheOpensslCommand) {
  gw::GWKeychainRef keychain = GWCreateTempKeychainForCodesigning();
  ASSERT_TRUE(keychain);
  std::optional<Data> signature;
  ASSERT_TRUE(GWCreateAppSignature(program_, keychain, &signature, true));
  ASSERT_TRUE(signature);
  EXPECT_TRUE(tmpIsEmpty()) << "the detached file is removed after it was read";
  EXPECT_FALSE(GWAppIsSigned(program_, std::nullopt)) << "nothing was embedded";

  std::string der =
      root_.writeFile("/out/signature.der", std::string(signature->begin(), signature->end()));
  std::string content = root_.at("/out/content");
  gwtest::RunResult run = gwtest::runProgram({"openssl", "cms", "-verify", "-inform", "DER",
                                              "-binary", "-noverify", "-in", der, "-out", content});
  ASSERT_EQ(run.status, 0) << run.err;
  std::ifstream in(content, std::ios::binary);
  Data verified((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(verified, recordOf(program_));

  EXPECT_TRUE(GWValidateSignedApplication(program_, signature, std::nullopt, 4));
  std::optional<Data> requirement =
      GWCreateDesignatedRequirement(program_, std::nullopt, signature);
  ASSERT_TRUE(requirement);
  EXPECT_TRUE(GWValidateSignedApplication(program_, signature, requirement, 4));
  // Another identity's signature over the same program fails the recorded requirement.
  std::optional<Data> other;
  ASSERT_TRUE(GWCreateAppSignature(program_, GWCreateTempKeychainForCodesigning(), &other, true));
  EXPECT_TRUE(GWValidateSignedApplication(program_, other, std::nullopt, 4));
  EXPECT_FALSE(GWValidateSignedApplication(program_, other, requirement, 4));

  Data truncated(signature->begin(), signature->begin() + long(signature->size() / 2));
  EXPECT_FALSE(GWValidateSignedApplication(program_, truncated, std::nullopt, 4));
}

TEST_F(SigningTest, AdHocSignatureIsBoundToTheExactRecord) {
  // No keychain and an empty user keychain: ad hoc.
  std::optional<Data> signature;
  gwtest::LogCapture log;
  ASSERT_TRUE(GWCreateAppSignature(program_, nullptr, &signature, true));
  EXPECT_TRUE(log.contains("Using NULL identity"));
  std::optional<Data> requirement =
      GWCreateDesignatedRequirement(program_, std::nullopt, signature);
  ASSERT_TRUE(requirement);
  std::string reason;
  auto parsed = gw::codesign::parseRequirement(*requirement, &reason);
  ASSERT_TRUE(parsed) << reason;
  ASSERT_EQ((*parsed)->op, gw::codesign::RequirementOp::And);
  EXPECT_EQ((*parsed)->operands[1]->op, gw::codesign::RequirementOp::ContentHash);
  EXPECT_TRUE(GWValidateSignedApplication(program_, signature, requirement, 4));
  // Even with the content check skipped, the requirement still pins the record.
  { std::ofstream(program_, std::ios::app) << "tampered\n"; }
  std::optional<Data> resigned;
  ASSERT_TRUE(GWCreateAppSignature(program_, nullptr, &resigned, true));
  EXPECT_FALSE(GWValidateSignedApplication(program_, resigned, requirement, 6));
}

TEST_F(SigningTest, UserDefaultKeychainIsUsedWhenNoneIsGiven) {
  gw::GWKeychainRef temporary = GWCreateTempKeychainForCodesigning();
  ASSERT_TRUE(temporary);
  gw::GWKeychainRef user = gw::GWCopyDefaultKeychain();
  ASSERT_TRUE(user);
  EXPECT_EQ(user->path, root_.at("/home/data/gatewise/keychain.p12"));
  auto identity = gw::codesign::makeSelfSignedIdentity("Tutela Codesigning");
  ASSERT_TRUE(identity);
  // Written by hand: a user keychain sealed with the empty password.
  root_.makeFolder("/home/data/gatewise");
  gwtest::RunResult copy = gwtest::runProgram({"openssl", "pkcs12", "-in", temporary->path,
                                               "-passin", "pass:" + temporary->password, "-nodes",
                                               "-out", root_.at("/home/data/pem")});
  ASSERT_EQ(copy.status, 0) << copy.err;
  gwtest::RunResult reseal =
      gwtest::runProgram({"openssl", "pkcs12", "-export", "-in", root_.at("/home/data/pem"),
                          "-passout", "pass:", "-out", user->path});
  ASSERT_EQ(reseal.status, 0) << reseal.err;

  std::optional<Data> signature;
  gwtest::LogCapture log;
  ASSERT_TRUE(GWCreateAppSignature(program_, nullptr, &signature, true));
  EXPECT_TRUE(log.contains("Looking for codesigning identity on user keychain"));
  EXPECT_TRUE(log.contains("Found existing codesigning identity"));
  EXPECT_FALSE(log.contains("Using NULL identity"));
  std::optional<Data> requirement =
      GWCreateDesignatedRequirement(program_, std::nullopt, signature);
  ASSERT_TRUE(requirement);
  gw::GWSigningIdentityRef expected = CopyAppSigningIdentity(temporary);
  ASSERT_TRUE(expected);
  std::string reason;
  auto parsed = gw::codesign::parseRequirement(*requirement, &reason);
  ASSERT_TRUE(parsed) << reason;
  EXPECT_EQ((*parsed)->operands[1]->op, gw::codesign::RequirementOp::CertificateHash);
  EXPECT_EQ((*parsed)->operands[1]->data,
            gw::codesign::certificateSha1(expected->identity().certificate.get()));
}

TEST_F(SigningTest, EmbeddedFailureFallsBackToDetachedOnlyWithAPlace) {
  // A link at the path is never written through: the embedded pass fails.
  std::string link = root_.at("/Applications/link");
  ASSERT_EQ(::symlink(program_.c_str(), link.c_str()), 0);
  {
    gwtest::LogCapture log;
    EXPECT_FALSE(GWCreateAppSignature(link, nullptr, nullptr, false));
    EXPECT_TRUE(log.contains("on pass: 1"));
    EXPECT_TRUE(log.contains("*** No space for detached signature."));
  }
  {
    gwtest::LogCapture log;
    std::optional<Data> signature;
    EXPECT_TRUE(GWCreateAppSignature(link, nullptr, &signature, false));
    EXPECT_TRUE(signature);
    EXPECT_TRUE(log.contains("Entering detached signature pass."));
    EXPECT_FALSE(GWAppIsSigned(program_, std::nullopt)) << "the link's target was left alone";
  }
  {
    gwtest::LogCapture log;
    EXPECT_FALSE(GWCreateAppSignature(program_, nullptr, nullptr, true));
    EXPECT_TRUE(log.contains("*** No space for detached signature."));
    EXPECT_FALSE(log.contains("on pass: 1"));
  }
  EXPECT_FALSE(GWCreateAppSignature(std::nullopt, nullptr, nullptr, false));
  EXPECT_FALSE(GWCreateAppSignature(root_.at("/missing"), nullptr, nullptr, false));
  EXPECT_TRUE(tmpIsEmpty());
}

TEST_F(SigningTest, MakerRequirementNeedsTheConfiguredAnchor) {
  gw::GWKeychainRef keychain = GWCreateTempKeychainForCodesigning();
  ASSERT_TRUE(keychain);
  std::optional<Data> signature;
  ASSERT_TRUE(GWCreateAppSignature(program_, keychain, &signature, true));
  Data maker = gw::codesign::builtInMakerRequirement();
  EXPECT_FALSE(GWValidateSignedApplication(program_, signature, maker, 0)) << "no anchor set";

  root_.makeFolder("/etc");
  gwtest::RunResult pem = gwtest::runProgram({"openssl", "pkcs12", "-in", keychain->path, "-passin",
                                              "pass:" + keychain->password, "-nokeys", "-out",
                                              root_.at("/etc/anchor.pem")});
  ASSERT_EQ(pem.status, 0) << pem.err;
  root_.writeFile("/Library/Preferences/com.morvane.Gatewise.plist",
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                  "<key>signingAnchor</key><string>" +
                      root_.at("/etc/anchor.pem") + "</string></dict></plist>\n");
  EXPECT_TRUE(GWValidateSignedApplication(program_, signature, maker, 0));

  std::optional<Data> stranger;
  ASSERT_TRUE(
      GWCreateAppSignature(program_, GWCreateTempKeychainForCodesigning(), &stranger, true));
  EXPECT_FALSE(GWValidateSignedApplication(program_, stranger, maker, 0));
  EXPECT_FALSE(GWAppIsSignedByMorvane(program_)) << "nothing embedded";
  EXPECT_FALSE(GWAppIsSignedByMorvane(std::nullopt));
}

TEST_F(SigningTest, DetachedSignatureIsFoundInTheManagedWhiteList) {
  std::string app = writeEditorApp(root_);
  EXPECT_FALSE(GWCopyDetachedSignature(app, "kim")) << "no managed file";
  root_.writeFile("/Library/Managed Preferences/kim/com.morvane.applicationaccess.new.plist",
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                  "<key>whiteList</key><array>"
                  "<string>not a record</string>"
                  "<dict><key>bundleID</key><string>com.example.other</string>"
                  "<key>detachedSignature</key><data>AAAA</data></dict>"
                  "<dict><key>bundleID</key><string>com.example.editor</string>"
                  "<key>detachedSignature</key><data>AQID</data></dict>"
                  "</array></dict></plist>\n");
  std::optional<Data> found = GWCopyDetachedSignature(app, "kim");
  ASSERT_TRUE(found);
  EXPECT_EQ(*found, (Data{1, 2, 3}));
  EXPECT_FALSE(GWCopyDetachedSignature(program_, "kim")) << "com.unknown.tool is not listed";
  EXPECT_FALSE(GWCopyDetachedSignature(app, "../kim"));
  EXPECT_FALSE(GWCopyDetachedSignature(app, "lee"));
}

TEST_F(SigningTest, WritableProgramNeedsNoDetachedSignatureAndNoDaemonGivesMinusTwo) {
  EXPECT_FALSE(CodeSignWillGenerateDetachedSignature(program_));
  {
    gwtest::LogCapture log;
    EXPECT_FALSE(CodeSignWillGenerateDetachedSignature(root_.at("/missing")));
    EXPECT_TRUE(log.contains("*** FSGetCatalogInfo returned error"));
  }
  gwtest::LogCapture log;
  EXPECT_EQ(GWNotifyKernelOfDetachedSignature(program_.c_str(), 7), -2);
  EXPECT_TRUE(log.contains("*** tud port was 0, allowing app"));
  EXPECT_FALSE(gGWALRLock.heldByCurrentThread());
}

}  // namespace

namespace {

// A read-only bind mount of a folder of the temporary root, made in a private mount namespace of
// a child process: the program inside stands on a locked volume.
TEST(SigningVolumeTest, ProgramOnReadOnlyMountNeedsADetachedSignature) {
  gwtest::TempRoot root;
  std::string folder = root.makeFolder("/Volumes/Locked");
  std::string program = root.writeFile("/Volumes/Locked/tool", "payload");
  constexpr int kCannotMount = 77;
  int status = gwtest::runInChild([&] {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        ::mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
      return kCannotMount;
    return CodeSignWillGenerateDetachedSignature(program) ? 0 : 1;
  });
  if (status == kCannotMount) GTEST_SKIP() << "no private read-only mount here";
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(CodeSignWillGenerateDetachedSignature(program)) << "writable outside the child";
}

}  // namespace

namespace {

TEST(SigningBundleTest, BundleSignatureCoversEveryFileInside) {
  gwtest::TempRoot root;
  root.makeFolder("/tmp");
  std::string app = writeEditorApp(root);
  std::string resource =
      root.writeFile("/Applications/Editor.app/Contents/Resources/en.lproj/Main.strings", "a");
  std::optional<Data> signature;
  ASSERT_TRUE(GWCreateAppSignature(app, nullptr, &signature, true));
  std::optional<Data> requirement =
      GWCreateDesignatedRequirement(std::nullopt, "file://" + app, signature);
  ASSERT_TRUE(requirement);
  std::string identifier = "com.example.editor";
  EXPECT_NE(
      std::search(requirement->begin(), requirement->end(), identifier.begin(), identifier.end()),
      requirement->end());
  EXPECT_TRUE(GWValidateSignedApplication(app, signature, requirement, 4));

  root.writeFile("/Applications/Editor.app/Contents/Resources/extra", "");
  EXPECT_FALSE(GWValidateSignedApplication(app, signature, requirement, 4)) << "a file was added";
  ASSERT_EQ(::unlink(root.at("/Applications/Editor.app/Contents/Resources/extra").c_str()), 0);
  EXPECT_TRUE(GWValidateSignedApplication(app, signature, requirement, 4));
  { std::ofstream(resource) << "b"; }
  EXPECT_FALSE(GWValidateSignedApplication(app, signature, requirement, 4)) << "a resource changed";
  // The content check is skipped only when both flags say so.
  EXPECT_TRUE(GWValidateSignedApplication(app, signature, std::nullopt, 6));
}

}  // namespace
