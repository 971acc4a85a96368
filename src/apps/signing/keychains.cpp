// Keychains for signing: the temporary keychain made for one signing session, the user's default
// keychain, and finding a code-signing identity in a keychain.
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "apps/signing/signing_support.h"
#include "platform/codesign/keychain_file.h"
#include "platform/fs/root.h"

namespace {

constexpr char kKeychainPrefix[] = "com.morvane.qrm.";
constexpr char kPasswordAlphabet[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!@#$%^&*()-=+_{}[]:;<>?,./";
constexpr std::size_t kPasswordAlphabetSize = sizeof kPasswordAlphabet - 1;  // 88
constexpr std::size_t kPasswordLength = 127;
constexpr int kNameAttempts = 16;

// Fills buffer from the kernel's random source; false if it keeps failing.
bool randomBytes(unsigned char* buffer, std::size_t size) {
  std::size_t done = 0;
  for (int attempts = 0; done < size && attempts < 64; ++attempts) {
    ssize_t n = ::getrandom(buffer + done, size - done, 0);
    if (n > 0)
      done += std::size_t(n);
    else if (errno != EINTR && errno != EAGAIN)
      return false;
  }
  return done == size;
}

// 127 characters of the 88-character alphabet. The classic way seeds the C library's generator
// with the time, which anyone can replay; this draws from getrandom instead, rejecting bytes at or
// above 176 (2 x 88) so that every character is equally likely.
std::optional<std::string> makePassword() {
  std::string password;
  unsigned char pool[256];
  while (password.size() < kPasswordLength) {
    if (!randomBytes(pool, sizeof pool)) return std::nullopt;
    for (unsigned char byte : pool) {
      if (byte >= 2 * kPasswordAlphabetSize) continue;
      password += kPasswordAlphabet[byte % kPasswordAlphabetSize];
      if (password.size() == kPasswordLength) break;
    }
  }
  return password;
}

// "<folder>/com.morvane.qrm.XXXXXXXX" with a random suffix; the caller creates it exclusively.
std::optional<std::string> temporaryKeychainPath() {
  static constexpr char kSuffixAlphabet[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  unsigned char bytes[8];
  if (!randomBytes(bytes, sizeof bytes)) return std::nullopt;
  std::string name = kKeychainPrefix;
  for (unsigned char byte : bytes) name += kSuffixAlphabet[byte % (sizeof kSuffixAlphabet - 1)];
  std::string folder = gw::fs::rootedPath(::geteuid() == 0 ? "/var/db" : "/tmp");
  // "/var/db" is not part of the usual Linux layout: make it, private to root, when missing.
  std::error_code error;
  if (std::filesystem::create_directories(folder, error)) ::chmod(folder.c_str(), 0700);
  if (error) return std::nullopt;
  return folder + "/" + name;
}

gw::GWSigningIdentityRef firstCodeSigningIdentity(const gw::GWKeychain& keychain) {
  std::string error;
  auto contents = gw::codesign::readKeychainFile(keychain.path, keychain.password, &error);
  if (!contents) {
    GW_LOG(1, "%@", error);
    return nullptr;
  }
  // Invalid identities are not filtered out here (an expired certificate is still returned); the
  // checker refuses what it signs.
  if (!contents->identity ||
      !gw::codesign::allowsCodeSigning(contents->identity->certificate.get()) ||
      !gw::codesign::keyMatchesCertificate(contents->identity->key.get(),
                                           contents->identity->certificate.get()))
    return nullptr;
  return std::make_shared<const gw::GWSigningIdentity>(std::move(*contents->identity));
}

}  // namespace

namespace gw {

std::string GWSigningIdentityCommonName(const GWSigningIdentityRef& identity) {
  if (identity == nullptr) return "";
  return codesign::commonNameOf(identity->identity().certificate.get());
}

GWKeychainRef GWCopyDefaultKeychain() {
  std::string dataHome;
  if (const char* xdg = ::secure_getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') {
    dataHome = xdg;
  } else if (const char* home = ::secure_getenv("HOME"); home != nullptr && home[0] == '/') {
    dataHome = std::string(home) + "/.local/share";
  } else {
    return nullptr;
  }
  return std::make_shared<const GWKeychain>(GWKeychain{dataHome + "/gatewise/keychain.p12", ""});
}

}  // namespace gw

gw::GWSigningIdentityRef CopyAppSigningIdentity(const gw::GWKeychainRef& keychain) {
  return gw::returningOnException(__func__, __LINE__, gw::GWSigningIdentityRef(), [&] {
    return keychain == nullptr ? nullptr : firstCodeSigningIdentity(*keychain);
  });
}

gw::GWKeychainRef GWCreateTempKeychainForCodesigning() try {
  GW_LOG(2, "Enter");
  std::optional<std::string> password = makePassword();
  if (!password) {
    GW_LOG(0, "*** CreateTempKeychain: SecKeychainCreate returned error %d", errno);
    GW_LOG(0, "*** GWCreateTempKeychainForCodesigning: CreateTempKeychain returned NULL");
    return nullptr;
  }
  auto identity = gw::codesign::makeSelfSignedIdentity(gw::signing::kSigningCommonName);
  if (!identity) {
    GW_LOG(0, "*** SFCertificateAuthority returned nil");
    GW_LOG(0, "*** CreateSelfSignedCert returned NULL");
    GW_LOG(0, "*** GWCreateTempKeychainForCodesigning: CreateIdentityWithKeychain returned NULL");
    return nullptr;
  }
  std::string error;
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    std::optional<std::string> path = temporaryKeychainPath();
    if (!path) break;
    error.clear();
    if (gw::codesign::writeKeychainFile(*path, *password, *identity,
                                        gw::signing::kSigningCommonName, &error))
      return std::make_shared<const gw::GWKeychain>(gw::GWKeychain{*path, *password});
    if (errno != EEXIST) break;  // a name taken by someone else: draw another
  }
  GW_LOG(0, "*** CreateTempKeychain: SecKeychainCreate returned error %d (%@)", errno, error);
  GW_LOG(0, "*** GWCreateTempKeychainForCodesigning: CreateTempKeychain returned NULL");
  return nullptr;
} catch (const std::exception& e) {
  GW_LOG_CAUGHT(e);
  return nullptr;
}
