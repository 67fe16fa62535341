#include "Core/Platform/RsaUtil.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstring>
#include <vector>

#include "Core/Platform/Logger.h"
#include "Core/Platform/OpenSsl.h"

namespace {
constexpr const char* kLogSource = "Platform/RsaUtil";

// Empties the queue even when the line is filtered out.
void logOpenSslError() {
    std::string error = Zel::Core::OpenSslFirstError();
    ZEL_LOG(Zel::Core::ServiceCore, Zel::Core::CategoryState, Zel::Core::SeverityError, "ERROR: %s",
            error.c_str());
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
    X509Ptr cert = ReadCertificate(certPem);
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
    MdCtxPtr ctx(EVP_MD_CTX_new());
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
    PkeyPtr key = ReadPrivateKey(keyPem, passPhrase, const_cast<char*>(second));
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
        logOpenSslError();
        return false;
    }
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
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
