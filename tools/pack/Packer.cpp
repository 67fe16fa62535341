#include <openssl/evp.h>

#include "tools/pack/Certificates.h"
#include "tools/pack/Pack.h"

namespace ZelPack {

namespace {

constexpr uint64_t kMaxBlockSize = uint64_t{1} << 31;
constexpr uint64_t kTagSize = 16;

bool Sha256Hex(const std::string& bytes, std::string& hex) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr) != 1) {
        return false;
    }
    static const char kDigits[] = "0123456789abcdef";
    hex.clear();
    for (unsigned int i = 0; i < size; ++i) {
        hex.push_back(kDigits[digest[i] >> 4]);
        hex.push_back(kDigits[digest[i] & 0x0f]);
    }
    return true;
}

bool CheckSizes(const std::string& plaintext, const Options& options, std::string& error) {
    if (options.version.empty()) {
        error = "no version given";
        return false;
    }
    if (options.blockSize == 0 || options.blockSize > kMaxBlockSize) {
        error = "the block size must be 1 to " + std::to_string(kMaxBlockSize) + ", not " +
                std::to_string(options.blockSize);
        return false;
    }
    if (plaintext.empty()) {
        error = "the payload is empty";
        return false;
    }
    // The device counts blocks in 32 bits.
    if ((plaintext.size() - 1) / options.blockSize + 1 > UINT32_MAX) {
        error = "the payload needs more than " + std::to_string(UINT32_MAX) +
                " blocks; give a larger block size";
        return false;
    }
    return true;
}

// The signing key, its certificate and the intermediate: the certificates
// in their plain PEM form, as the claims carry them.
bool CheckSigner(const Options& options, std::string& signCert, std::string& intermediate,
                 std::string& error) {
    std::string keyError;
    PkeyPtr key = ReadRsaPrivateKey(options.signKeyPem, keyError);
    if (!key) {
        error = "the signing key cannot be used: " + keyError;
        return false;
    }
    X509Ptr cert = ReadCertificate(options.signCertPem);
    if (!cert) {
        error = "the signing certificate is not a PEM certificate";
        return false;
    }
    EVP_PKEY* certKey = X509_get0_pubkey(cert.get());
    if (certKey == nullptr || EVP_PKEY_eq(certKey, key.get()) != 1) {
        OpenSslError();
        error = "the signing certificate (" + DescribeCertificate(options.signCertPem) +
                ") does not hold the public key of the signing key";
        return false;
    }
    X509Ptr chain = ReadCertificate(options.intermediateCertPem);
    if (!chain) {
        error = "the intermediate certificate is not a PEM certificate";
        return false;
    }
    signCert = CertificatePem(cert.get());
    intermediate = CertificatePem(chain.get());
    return !signCert.empty() && !intermediate.empty();
}

// The operator id the device compares with its own: given, or the device
// certificate CN's part before its first ".".
bool OperatorId(const Options& options, std::string& opid, std::string& error) {
    X509Ptr cert = ReadCertificate(options.deviceCertPem);
    if (!cert) {
        error = "the device certificate is not a PEM certificate";
        return false;
    }
    if (!options.opid.empty()) {
        opid = options.opid;
        return true;
    }
    std::string name = CommonName(cert.get());
    size_t dot = name.find('.');
    if (dot == 0 || dot == std::string::npos) {
        error = "the device certificate's " + DescribeCertificate(options.deviceCertPem) +
                " names no operator id before a \".\"; give one";
        return false;
    }
    opid = name.substr(0, dot);
    return true;
}

}  // namespace

std::string LocalFile(const std::string& token, const std::string& encrypted) {
    auto size = static_cast<uint32_t>(token.size());
    std::string file;
    file.reserve(4 + token.size() + encrypted.size());
    file.push_back(static_cast<char>(size >> 24));
    file.push_back(static_cast<char>(size >> 16));
    file.push_back(static_cast<char>(size >> 8));
    file.push_back(static_cast<char>(size));
    return file.append(token).append(encrypted);
}

bool Pack(const std::string& plaintext, const Options& options, Package& package,
          std::string& error) {
    std::string signCert, intermediate, opid;
    if (!CheckSizes(plaintext, options, error) ||
        !CheckSigner(options, signCert, intermediate, error) || !OperatorId(options, opid, error)) {
        return false;
    }
    Package made;
    made.keys = KeyBlock::Random();
    if (made.keys.bytes().size() != 44) {
        error = "no random bytes for the content key: " + OpenSslError();
        return false;
    }
    std::string sealed;
    if (!SealKeyBlock(made.keys.bytes(), options.deviceCertPem, sealed, error)) {
        return false;
    }
    made.encrypted = EncryptBlocks(plaintext, options.blockSize, made.keys);
    uint64_t blocks = (plaintext.size() - 1) / options.blockSize + 1;
    if (made.encrypted.size() != plaintext.size() + blocks * kTagSize) {
        error = "cannot encrypt the payload: " + OpenSslError();
        return false;
    }
    if (!Sha256Hex(plaintext, made.hash)) {
        error = "cannot hash the payload: " + OpenSslError();
        return false;
    }

    Json::Value audiences(Json::arrayValue);
    for (const std::string& audience : options.audiences) {
        audiences.append(audience);
    }
    Json::Value& claims = made.claims;
    claims["crt"] = signCert;
    claims["int"] = intermediate;
    claims["key"] = sealed;
    claims["hsh"] = made.hash;
    claims["opd"] = opid;
    claims["aud"] = audiences;
    claims["blk"] = Json::UInt(options.blockSize);
    claims["siz"] = Json::UInt64(plaintext.size());
    claims["url"] = options.url;
    claims["aas"] = options.autoAnswer;
    claims["man"] = options.mandatory;
    claims["upn"] = options.version;
    claims["sub"] = options.sub;
    claims["upf"] = options.upf;
    claims["upi"] = Json::UInt64(options.upi);
    claims["udt"] = options.displayText;

    Json::Value header(Json::objectValue);
    header["alg"] = "RS512";
    header["typ"] = "JWT";
    if (!SignToken(header, claims, options.signKeyPem, made.token, error)) {
        return false;
    }
    made.localFile = LocalFile(made.token, made.encrypted);
    package = std::move(made);
    return true;
}

}  // namespace ZelPack
