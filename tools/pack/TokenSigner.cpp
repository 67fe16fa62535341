#include <openssl/evp.h>

#include <memory>
#include <vector>

#include "tools/pack/Base64.h"
#include "tools/pack/Certificates.h"
#include "tools/pack/JsonText.h"
#include "tools/pack/Pack.h"

namespace ZelPack {

namespace {

struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

}  // namespace

bool SignToken(const Json::Value& header, const Json::Value& claims, const std::string& signKeyPem,
               std::string& token, std::string& error) {
    std::string keyError;
    PkeyPtr key = ReadRsaPrivateKey(signKeyPem, keyError);
    if (!key) {
        error = "the signing key cannot be used: " + keyError;
        return false;
    }
    std::string signedPart =
        Base64Encode(CompactJson(header)) + "." + Base64Encode(CompactJson(claims));
    // RSA keys sign with PKCS #1 v1.5 padding unless told otherwise: RS512.
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    const auto* data = reinterpret_cast<const unsigned char*>(signedPart.data());
    size_t size = 0;
    if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha512(), nullptr, key.get()) != 1 ||
        EVP_DigestSign(ctx.get(), nullptr, &size, data, signedPart.size()) != 1) {
        error = "cannot sign the token: " + OpenSslError();
        return false;
    }
    std::vector<unsigned char> signature(size);
    if (EVP_DigestSign(ctx.get(), signature.data(), &size, data, signedPart.size()) != 1) {
        error = "cannot sign the token: " + OpenSslError();
        return false;
    }
    token = signedPart + "." +
            Base64Encode(std::string(reinterpret_cast<const char*>(signature.data()), size));
    return true;
}

}  // namespace ZelPack
