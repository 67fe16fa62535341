#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

// Loading the publisher's keys and certificates from PEM text, with reasons
// a person can act on when they do not load.
namespace ZelPack {

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct X509Free {
    void operator()(X509* cert) const { X509_free(cert); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;

// The first certificate of a PEM text; null when there is none.
X509Ptr ReadCertificate(const std::string& pem);

// The certificate again as PEM text, nothing around it.
std::string CertificatePem(const X509* cert);

// An unencrypted RSA private key; null with the reason in `error`.
PkeyPtr ReadRsaPrivateKey(const std::string& pem, std::string& error);

// The subject CN as UTF-8; empty when there is none.
std::string CommonName(const X509* cert);

// The subject CN of a PEM certificate, for showing: control characters
// replaced, "(not a certificate)" or "(no CN)" when there is nothing to show.
std::string DescribeCertificate(const std::string& pem);

// What OpenSSL last complained about, and the queue emptied.
std::string OpenSslError();

}  // namespace ZelPack
