#include "Core/Platform/RsaUtil.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstring>
#include <memory>
#include <vector>

#include "Core/Platform/Logger.h"

namespace {
constexpr const char* kLogSource = "Platform/RsaUtil";

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Free {
    void operator()(X509* cert) const { X509_free(cert); }
};
struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

// Logs the oldest queued OpenSSL error and empties the queue, so a stale entry
// cannot surface in a later, unrelated TLS call on this thread.
void logOpenSslError() {
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    ERR_clear_error();
    ZEL_LOG(Zel::Core::ServiceCore, Zel::Core::CategoryState, Zel::Core::SeverityError, "ERROR: %s",
            text);
}

// Hands over the pass phrase, or none at all: a missing one must fail the read
// instead of prompting on a terminal.
int passPhrase(char* buf, int size, int /*rwflag*/, void* userdata) {
    const char* phrase = static_cast<const char*>(userdata);
    if (phrase == nullptr) {
        return 0;
    }
    size_t length = std::strlen(phrase);
    if (length > static_cast<size_t>(size)) {
        return 0;
    }
    std::memcpy(buf, phrase, length);
    return static_cast<int>(length);
}
}  // namespace

namespace Zel {
namespace Core {

bool RsaUtil::VerifyRS512(const std::string& certPem, const unsigned char* data, unsigned len,
                          const unsigned char* sig, unsigned sigLen) {
    std::unique_ptr<BIO, BioFree> bio(
        BIO_new_mem_buf(certPem.data(), static_cast<int>(certPem.size())));
    std::unique_ptr<X509, X509Free> cert(
        bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!cert) {
        logOpenSslError();
        return false;
    }
    EVP_PKEY* key = X509_get0_pubkey(cert.get());
    // RS512 is defined for plain RSA keys only; anything else (EC, RSA-PSS)
    // would verify a different scheme.
    if (key == nullptr || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
        logOpenSslError();
        return false;
    }
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    EVP_PKEY_CTX* keyCtx = nullptr;
    if (!ctx || EVP_DigestVerifyInit(ctx.get(), &keyCtx, EVP_sha512(), nullptr, key) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(keyCtx, RSA_PKCS1_PADDING) <= 0) {
        logOpenSslError();
        return false;
    }
    if (EVP_DigestVerify(ctx.get(), sig, sigLen, data, len) != 1) {
        logOpenSslError();
        return false;
    }
    return true;
}

bool RsaUtil::Decrypt(const char* keyPem, const char* second, const unsigned char* in, unsigned len,
                      std::string& out) {
    out.clear();
    if (keyPem == nullptr || in == nullptr) {
        return false;
    }
    std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(keyPem, -1));
    std::unique_ptr<EVP_PKEY, PkeyFree> key(
        bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, passPhrase, const_cast<char*>(second))
            : nullptr);
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
        logOpenSslError();
        return false;
    }
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
    size_t outLen = 0;
    if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) <= 0 ||
        EVP_PKEY_decrypt(ctx.get(), nullptr, &outLen, in, len) != 1) {
        logOpenSslError();
        return false;
    }
    std::vector<unsigned char> plain(outLen);
    if (EVP_PKEY_decrypt(ctx.get(), plain.data(), &outLen, in, len) != 1) {
        OPENSSL_cleanse(plain.data(), plain.size());
        logOpenSslError();
        return false;
    }
    out.assign(reinterpret_cast<const char*>(plain.data()), outLen);
    // The plain text is typically key material.
    OPENSSL_cleanse(plain.data(), plain.size());
    return true;
}

}  // namespace Core
}  // namespace Zel
