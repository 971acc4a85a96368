// Keychains: PKCS#12 files holding one private key and its certificate, sealed with a password.
//
// writeKeychainFile creates the file exclusively (O_EXCL, O_NOFOLLOW, mode 0600) and never replaces
// an existing one; readKeychainFile opens without following a link and reads at most
// kMaxKeychainSize bytes. Thread-safe; nothing throws; failures give false / nullopt and a reason.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/codesign/certificate.h"

namespace gw::codesign {

inline constexpr std::size_t kMaxKeychainSize = 1 << 20;

bool writeKeychainFile(const std::string& path, const std::string& password,
                       const Identity& identity, std::string_view friendlyName, std::string* error);

struct KeychainContents {
  std::optional<Identity> identity;  // the key and its certificate, when the file holds a key
  std::vector<X509Ptr> otherCertificates;
};

std::optional<KeychainContents> readKeychainFile(const std::string& path,
                                                 const std::string& password, std::string* error);

}  // namespace gw::codesign
