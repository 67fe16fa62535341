#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <memory>
#include <vector>

#include "tools/pack/Base64.h"
#include "tools/pack/Certificates.h"
#include "tools/pack/Pack.h"

namespace ZelPack {

namespace {

struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};

}  // namespace

bool SealKeyBlock(const std::string& bytes, const std::string& deviceCertPem, std::string& sealed,
                  std::string& error) {
    X509Ptr cert = ReadCertificate(deviceCertPem);
    if (!cert) {
        error = "the device certificate is not a PEM certificate";
        return false;
    }
    EVP_PKEY* key = X509_get0_pubkey(cert.get());
    if (key == nullptr || !EVP_PKEY_is_a(key, "RSA")) {
        OpenSslError();
        error = "the device certificate does not hold an RSA key";
        return false;
    }
    // OAEP with OpenSSL's defaults (SHA-1 for the digest and MGF1) is what
    // the device decrypts with.
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new(key, nullptr));
    size_t size = 0;
    const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
    if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_encrypt(ctx.get(), nullptr, &size, in, bytes.size()) != 1) {
        error = "cannot seal the key block to the device certificate: " + OpenSslError();
        return false;
    }
    std::vector<unsigned char> out(size);
    if (EVP_PKEY_encrypt(ctx.get(), out.data(), &size, in, bytes.size()) != 1) {
        error = "cannot seal the key block to the device certificate: " + OpenSslError();
        return false;
    }
    sealed = Base64Encode(std::string(reinterpret_cast<const char*>(out.data()), size));
    return true;
}

}  // namespace ZelPack
