#include <openssl/evp.h>

#include <memory>

#include "tools/pack/Base64.h"
#include "tools/pack/Certificates.h"
#include "tools/pack/Inspector.h"
#include "tools/pack/JsonText.h"
#include "tools/pack/Pack.h"

namespace ZelPack {

namespace {

struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

bool IsBase64Char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

bool SplitInput(const std::string& input, std::string& token, uint64_t& encryptedBytes,
                std::string& error) {
    if (input.empty()) {
        error = "it is empty";
        return false;
    }
    if (!IsLocalPayloadFile(input)) {
        size_t end = input.find_last_not_of(" \t\r\n");
        token = input.substr(0, end + 1);
        encryptedBytes = 0;
        return true;
    }
    if (input.size() < 4) {
        error = "it is neither a token nor a local payload file (" + std::to_string(input.size()) +
                " bytes)";
        return false;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(input.data());
    uint64_t length = (uint64_t{bytes[0]} << 24) | (uint64_t{bytes[1]} << 16) |
                      (uint64_t{bytes[2]} << 8) | uint64_t{bytes[3]};
    if (length == 0 || length > input.size() - 4) {
        error = "a local payload file would hold a token of " + std::to_string(length) +
                " bytes, but " + std::to_string(input.size() - 4) + " bytes follow its length";
        return false;
    }
    token = input.substr(4, length);
    encryptedBytes = input.size() - 4 - length;
    return true;
}

bool ReadSegment(const std::string& segment, const char* name, Json::Value& value,
                 std::string& error) {
    std::string text, reason;
    if (!Base64Decode(segment, text)) {
        error = std::string("the token's ") + name + " is not base64";
        return false;
    }
    if (!ParseJson(text, value, reason)) {
        error = std::string("the token's ") + name + " is not JSON: " + reason;
        return false;
    }
    if (!value.isObject()) {
        error = std::string("the token's ") + name + " is not a JSON object";
        return false;
    }
    return true;
}

// RS512 over `signedPart` with the key of the PEM certificate.
bool VerifyRs512(const Json::Value& certPem, const std::string& signedPart,
                 const std::string& signatureSegment) {
    std::string signature;
    if (!certPem.isString() || !Base64Decode(signatureSegment, signature) || signature.empty()) {
        return false;
    }
    X509Ptr cert = ReadCertificate(certPem.asString());
    EVP_PKEY* key = cert ? X509_get0_pubkey(cert.get()) : nullptr;
    if (key == nullptr || !EVP_PKEY_is_a(key, "RSA")) {
        OpenSslError();
        return false;
    }
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    bool valid =
        ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha512(), nullptr, key) == 1 &&
        EVP_DigestVerify(
            ctx.get(), reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
            reinterpret_cast<const unsigned char*>(signedPart.data()), signedPart.size()) == 1;
    OpenSslError();
    return valid;
}

}  // namespace

// A local payload file's first byte is the top of the token length, below
// every base64 character for any token shorter than 700 MB.
bool IsLocalPayloadFile(const std::string& tokenOrFile) {
    return !tokenOrFile.empty() && !IsBase64Char(tokenOrFile[0]);
}

bool Inspect(const std::string& tokenOrFile, Inspection& inspection, std::string& error) {
    Inspection result;
    std::string token;
    if (!SplitInput(tokenOrFile, token, result.encryptedBytes, error)) {
        return false;
    }
    size_t first = token.find('.');
    if (first == std::string::npos) {
        error = "the token has no claims: it holds no \".\"";
        return false;
    }
    size_t second = token.find('.', first + 1);
    if (second != std::string::npos && token.find('.', second + 1) != std::string::npos) {
        error = "the token has more than three segments";
        return false;
    }
    std::string claims = token.substr(
        first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
    if (!ReadSegment(token.substr(0, first), "header", result.header, error) ||
        !ReadSegment(claims, "claims", result.claims, error)) {
        return false;
    }
    // Without a signature segment the token still shows, signed by nobody.
    if (second != std::string::npos) {
        const Json::Value& readOnly = result.claims;  // [] on a mutable value would add "crt"
        result.signatureValid =
            VerifyRs512(readOnly["crt"], token.substr(0, second), token.substr(second + 1));
    }
    inspection = std::move(result);
    return true;
}

}  // namespace ZelPack
