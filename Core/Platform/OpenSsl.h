#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>
#include <string>
#include <string_view>

namespace Zel {
namespace Core {

// Frees an OpenSSL object with its own release function.
template <typename T, auto Free>
struct OpenSslFree {
    void operator()(T* object) const { Free(object); }
};

void FreeX509InfoStack(STACK_OF(X509_INFO) * infos);

using BioPtr = std::unique_ptr<BIO, OpenSslFree<BIO, BIO_free>>;
using X509Ptr = std::unique_ptr<X509, OpenSslFree<X509, X509_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslFree<EVP_PKEY, EVP_PKEY_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, OpenSslFree<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, OpenSslFree<EVP_MD_CTX, EVP_MD_CTX_free>>;
using CipherCtxPtr =
    std::unique_ptr<EVP_CIPHER_CTX, OpenSslFree<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>>;
using X509StorePtr = std::unique_ptr<X509_STORE, OpenSslFree<X509_STORE, X509_STORE_free>>;
using X509StoreCtxPtr =
    std::unique_ptr<X509_STORE_CTX, OpenSslFree<X509_STORE_CTX, X509_STORE_CTX_free>>;
using X509InfoStackPtr =
    std::unique_ptr<STACK_OF(X509_INFO), OpenSslFree<STACK_OF(X509_INFO), FreeX509InfoStack>>;

// Drains this thread's error queue into one line ("; " between entries, "no
// detail" when it was empty), so that a stale error cannot be blamed on a
// later, unrelated operation.
std::string OpenSslErrors();

// The text of the oldest queued error only; the rest of the queue is dropped
// for the same reason.
std::string OpenSslFirstError();

// Asks OpenSSL not to clean itself up at process exit, which it would do under
// an agent thread still in a handshake when the host exits without ZelTerm.
// Only the first initialisation in the process decides, so this comes first.
void KeepOpenSslPastExit();

// The first certificate of a PEM text; empty when there is none.
X509Ptr ReadCertificate(std::string_view pem);

// Every certificate (and whatever else) of a PEM text; empty when unreadable.
X509InfoStackPtr ReadCertificates(std::string_view pem);

// A private key from PEM; `callback` hands over the pass phrase.
PkeyPtr ReadPrivateKey(std::string_view pem, pem_password_cb* callback, void* userdata);

// Adds the certificates among `infos` to `store`, which takes its own
// references. Returns how many were added, or -1 when the store refused one.
int AddCertificates(X509_STORE* store, STACK_OF(X509_INFO) * infos);

}  // namespace Core
}  // namespace Zel
