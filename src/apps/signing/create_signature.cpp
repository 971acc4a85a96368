// GWCreateAppSignature: signs a program in up to two passes, embedded then detached.
#include <gatewise/core.h>
#include <gatewise/log.h>
#include <sys/stat.h>

#include <cerrno>

#include "apps/signing/signing_support.h"
#include "platform/codesign/signature_store.h"
#include "platform/fs/root.h"

namespace {

using gw::signing::kStatusOk;

constexpr int kEmbeddedPass = 1;
constexpr int kDetachedPass = 2;

// The identity to sign with: the provided keychain's, else the user's default keychain's, else
// none (ad hoc).
gw::GWSigningIdentityRef chooseIdentity(const gw::GWKeychainRef& keychain) {
  if (keychain != nullptr) {
    GW_LOG(2, "Looking for codesigning identity on provided keychain");
    if (auto identity = CopyAppSigningIdentity(keychain)) {
      GW_LOG(2, "Found existing codesigning identity");
      return identity;
    }
    GW_LOG(0, "*** Provided keychain doesn't have a codesigning identity");
  }
  GW_LOG(2, "Looking for codesigning identity on user keychain");
  gw::GWKeychainRef userKeychain = gw::GWCopyDefaultKeychain();
  if (userKeychain == nullptr)
    GW_LOG(0, "*** CopyUserSigningIdentity: SecKeychainCopyDefault returned error %d", -1);
  if (auto identity = CopyAppSigningIdentity(userKeychain)) {
    GW_LOG(2, "Found existing codesigning identity");
    return identity;
  }
  GW_LOG(2, "User keychain doesn't have a codesigning identity");
  GW_LOG(2, "Using NULL identity");
  return nullptr;
}

// One signing pass; kStatusOk, or the status that made it fail. On the detached pass the
// signature lands in *signature.
int runPass(int pass, const std::string& path, const gw::GWSigningIdentityRef& identity,
            std::optional<gw::plist::Data>* signature) {
  std::optional<gw::plist::Data> record = gw::signing::identityRecordOf(path);
  if (!record) return gw::signing::kStatusRecordFailed;
  gw::plist::Data der =
      gw::codesign::signContent(*record, identity != nullptr ? &identity->identity() : nullptr);
  if (der.empty()) return gw::signing::kStatusSigningFailed;
  std::string error;
  if (pass == kEmbeddedPass) {
    if (gw::codesign::writeEmbeddedSignature(path, der, &error)) return kStatusOk;
    GW_LOG(1, "%@", error);
    return gw::signing::kStatusStoreFailed;
  }
  std::string file = gw::fs::rootedPath("/tmp/.qrm_" + UUIDString());
  std::optional<gw::plist::Data> detached =
      gw::codesign::passThroughDetachedFile(file, der, &error);
  if (!detached) {
    GW_LOG(1, "%@", error);
    return gw::signing::kStatusStoreFailed;
  }
  *signature = std::move(detached);
  return kStatusOk;
}

}  // namespace

bool GWCreateAppSignature(const std::optional<std::string>& path, const gw::GWKeychainRef& keychain,
                          std::optional<gw::plist::Data>* signature, bool detached) try {
  GW_LOG(2, "GWCreateAppSignature: path is %@", path ? *path : std::string("(null)"));
  if (!path) return false;
  struct stat info;
  if (::lstat(path->c_str(), &info) != 0) {
    GW_LOG(0, "*** SecStaticCodeCreateWithPath returned error %d", gw::signing::kStatusNoProgram);
    return false;
  }
  int status = kStatusOk;
  std::string reason;
  if (gw::signing::loadSignature(*path, std::nullopt, &status, &reason) ||
      status == gw::signing::kStatusBadSignature) {
    // Even a signature that no longer holds is never replaced: re-signing would launder it.
    GW_LOG(1, "%@ is already signed", *path);
    return false;
  }
  gw::GWSigningIdentityRef identity = chooseIdentity(keychain);

  bool result = false;
  for (int pass = detached ? kDetachedPass : kEmbeddedPass; pass <= kDetachedPass; ++pass) {
    if (pass == kDetachedPass) {
      GW_LOG(2, "Entering detached signature pass.");
      if (signature == nullptr) {
        GW_LOG(0, "*** No space for detached signature.");
        break;
      }
    }
    GW_LOG(2, "SecCodeSignerCreate successful");
    status = runPass(pass, *path, identity, signature);
    if (status == kStatusOk) {
      result = true;
      break;
    }
    GW_LOG(0, "*** SecCodeSignerAddSignature returned: %d on pass: %d", status, pass);
  }
  GW_LOG(2, "Returning result %d", int(result));
  return result;
} catch (const std::exception& e) {
  GW_LOG_CAUGHT(e);
  return false;
}
