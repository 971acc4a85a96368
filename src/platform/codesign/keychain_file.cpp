#include "platform/codesign/keychain_file.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/fs/file_io.h"
#include "platform/fs/unique_fd.h"

namespace gw::codesign {

bool writeKeychainFile(const std::string& path, const std::string& password,
                       const Identity& identity, std::string_view friendlyName,
                       std::string* error) {
  std::string name(friendlyName);
  Pkcs12Ptr pkcs12(PKCS12_create(password.c_str(), name.c_str(), identity.key.get(),
                                 identity.certificate.get(), nullptr, 0, 0, 0, 0, 0));
  if (!pkcs12) {
    ERR_clear_error();
    *error = "PKCS12_create failed";
    return false;
  }
  int length = i2d_PKCS12(pkcs12.get(), nullptr);
  if (length <= 0) {
    *error = "i2d_PKCS12 failed";
    return false;
  }
  std::vector<unsigned char> bytes(static_cast<std::size_t>(length));
  unsigned char* cursor = bytes.data();
  i2d_PKCS12(pkcs12.get(), &cursor);

  fs::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) {
    *error = std::string("cannot create ") + path + ": " + std::strerror(errno);
    return false;
  }
  std::size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = ::write(fd.get(), bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = std::string("cannot write ") + path + ": " + std::strerror(errno);
      ::unlink(path.c_str());
      return false;
    }
    written += std::size_t(n);
  }
  if (::fsync(fd.get()) != 0) {
    *error = std::string("cannot sync ") + path + ": " + std::strerror(errno);
    ::unlink(path.c_str());
    return false;
  }
  return true;
}

std::optional<KeychainContents> readKeychainFile(const std::string& path,
                                                 const std::string& password, std::string* error) {
  fs::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) {
    *error = std::string("cannot open ") + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::string bytes;
  char buffer[8192];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *error = std::string("cannot read ") + path + ": " + std::strerror(errno);
      return std::nullopt;
    }
    if (n == 0) break;
    if (bytes.size() + std::size_t(n) > kMaxKeychainSize) {
      *error = path + " is too large for a keychain";
      return std::nullopt;
    }
    bytes.append(buffer, std::size_t(n));
  }
  const unsigned char* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
  Pkcs12Ptr pkcs12(d2i_PKCS12(nullptr, &cursor, long(bytes.size())));
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  STACK_OF(X509)* others = nullptr;
  if (!pkcs12 || PKCS12_parse(pkcs12.get(), password.c_str(), &key, &certificate, &others) != 1) {
    ERR_clear_error();
    *error = path + " is not a keychain or the password is wrong";
    return std::nullopt;
  }
  KeychainContents contents;
  if (key != nullptr && certificate != nullptr)
    contents.identity = Identity{PkeyPtr(key), X509Ptr(certificate)};
  else {
    EVP_PKEY_free(key);
    X509_free(certificate);
  }
  for (int i = 0; others != nullptr && i < sk_X509_num(others); ++i)
    contents.otherCertificates.emplace_back(sk_X509_value(others, i));
  sk_X509_free(others);
  return contents;
}

}  // namespace gw::codesign
