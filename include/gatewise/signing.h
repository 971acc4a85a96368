// Application signing: signatures that let a white list recognise a program, keychains that hold
// signing identities, and designated requirements.
//
// A signature is a CMS SignedData (DER) over the program's identity record (IdentityCreateWithPath
// of the file or of the whole bundle folder), signed with a code-signing identity and carrying its
// certificate; without an identity it is ad hoc, a SignedData with no signer. An embedded signature
// is kept in an extended attribute of the program ("trusted.gatewise.signature" when the process
// runs as root, "user.gatewise.signature" otherwise); a detached one is handed back as data. The
// program's signing identifier is its bundle identifier, or for a program without one
// "com.unknown.<file name without extension>", so a renamed bare program no longer matches.
//
// Keychains are PKCS#12 files (a key and its certificate under a password). The user's default
// keychain is "$XDG_DATA_HOME/gatewise/keychain.p12" (XDG_DATA_HOME defaults to
// "~/.local/share"), sealed with the empty password and protected by its file mode.
//
// Designated requirements are requirement blobs (magic 0xFADE0C00; docs/requirement-blob.md). The
// built-in maker requirement passes only for signatures whose chain ends at the anchor certificate
// configured in the host preferences ("signingAnchor" in "com.morvane.Gatewise", a PEM file path);
// with none configured nothing passes it.
//
// Every function may be called from any thread; GWNotifyKernelOfDetachedSignature takes
// gGWALRLock for its daemon exchange. Nothing throws; failures are logged and give false or nil.
#pragma once

#include <gatewise/export.h>
#include <gatewise/plist.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace gw {

// A keychain file and the password that opens it. The file is read afresh at each use.
struct GWKeychain {
  std::string path;
  std::string password;
};
using GWKeychainRef = std::shared_ptr<const GWKeychain>;

// A private key with its code-signing certificate (opaque).
class GWSigningIdentity;
using GWSigningIdentityRef = std::shared_ptr<const GWSigningIdentity>;

// The subject common name of the identity's certificate; "" for nil.
GW_EXPORT std::string GWSigningIdentityCommonName(const GWSigningIdentityRef& identity);

// The user's default keychain (see above); nil when the process has no home folder.
GW_EXPORT GWKeychainRef GWCopyDefaultKeychain();

// The outcome of a validation, with the reason a program was refused.
struct GWValidation {
  bool valid = false;
  std::string reason;  // "" when valid
};

// Validation flags: with both set the identity record is not recomputed (only the signature and
// the requirement are checked); the identity record covers executable and resources together.
inline constexpr std::uint32_t kGWDoNotValidateExecutable = 1u << 1;
inline constexpr std::uint32_t kGWDoNotValidateResources = 1u << 2;

// GWValidateSignedApplication with the reason it gives.
GW_EXPORT GWValidation GWValidateSignedApplicationWithReason(
    const std::optional<std::string>& path, const std::optional<plist::Data>& detachedSignature,
    const std::optional<plist::Data>& requirementData, std::uint32_t flags);

}  // namespace gw

// Signs the program at path: embedded first (or detached first when detached is true), falling
// back to a detached signature stored in *signature when signature is not null. False when the
// program is already signed, has no path, or no pass succeeds.
GW_EXPORT bool GWCreateAppSignature(const std::optional<std::string>& path,
                                    const gw::GWKeychainRef& keychain,
                                    std::optional<gw::plist::Data>* signature, bool detached);

// A new keychain "com.morvane.qrm.XXXXXXXX" in "/var/db" (root) or "/tmp" below the system root,
// holding a fresh self-signed "Tutela Codesigning" identity; nil on failure. The caller removes
// the file when done.
GW_EXPORT gw::GWKeychainRef GWCreateTempKeychainForCodesigning();

// The designated requirement of the program at url (when given) or path; nil when it is unsigned.
GW_EXPORT std::optional<gw::plist::Data> GWCreateDesignatedRequirement(
    const std::optional<std::string>& path, const std::optional<std::string>& url,
    const std::optional<gw::plist::Data>& detachedSignature);

// Whether the program carries a readable embedded signature with an identifier.
GW_EXPORT bool GWAppIsSigned(const std::optional<std::string>& path,
                             const std::optional<std::string>& url);

// Whether the program's signature satisfies the built-in maker requirement.
GW_EXPORT bool GWAppIsSignedByMorvane(const std::optional<std::string>& path);

// Whether the program's signature (the detached one when given) is good, covers the program as it
// is now (unless flags say otherwise) and satisfies requirementData when given.
GW_EXPORT bool GWValidateSignedApplication(const std::optional<std::string>& path,
                                           const std::optional<gw::plist::Data>& detachedSignature,
                                           const std::optional<gw::plist::Data>& requirementData,
                                           std::uint32_t flags);

// The "detachedSignature" of the program's entry in the user's managed white list; nil when any
// step is missing.
GW_EXPORT std::optional<gw::plist::Data> GWCopyDetachedSignature(const std::string& path,
                                                                 const std::string& userName);

// True when the program cannot be changed: it lies on a read-only mount or is immutable.
GW_EXPORT bool CodeSignWillGenerateDetachedSignature(const std::string& path);

// The first code-signing identity in keychain, or nil.
GW_EXPORT gw::GWSigningIdentityRef CopyAppSigningIdentity(const gw::GWKeychainRef& keychain);

// Tells the daemon about a detached signature; -2 when the daemon is not registered, a transport
// error, or the daemon's result.
GW_EXTERN_C int32_t GWNotifyKernelOfDetachedSignature(const char* path, int32_t value);
