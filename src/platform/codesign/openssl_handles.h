// Owning handles for the OpenSSL objects of the code-signing layer: each frees its object with the
// matching OpenSSL free function when it goes out of scope. Move-only, like std::unique_ptr.
#pragma once

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <memory>

namespace gw::codesign {

template <class T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* object) const { Free(object); }
};

using PkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;
using CmsPtr =
    std::unique_ptr<CMS_ContentInfo, OpenSslDeleter<CMS_ContentInfo, CMS_ContentInfo_free>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, OpenSslDeleter<PKCS12, PKCS12_free>>;
using X509StorePtr = std::unique_ptr<X509_STORE, OpenSslDeleter<X509_STORE, X509_STORE_free>>;
using X509StoreCtxPtr =
    std::unique_ptr<X509_STORE_CTX, OpenSslDeleter<X509_STORE_CTX, X509_STORE_CTX_free>>;

inline void freeBio(BIO* bio) { BIO_free(bio); }
using BioPtr = std::unique_ptr<BIO, OpenSslDeleter<BIO, freeBio>>;

inline void freeCertificateStack(STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); }
using X509StackPtr =
    std::unique_ptr<STACK_OF(X509), OpenSslDeleter<STACK_OF(X509), freeCertificateStack>>;

}  // namespace gw::codesign
