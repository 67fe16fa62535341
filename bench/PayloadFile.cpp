#include "PayloadFile.h"

#include <fcntl.h>
#include <json/value.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Core/Platform/HexUtil.h"

namespace ZelBench {

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

bool WriteAll(int fd, const unsigned char* data, size_t size, uint64_t offset) {
    while (size > 0) {
        ssize_t written = pwrite(fd, data, size, static_cast<off_t>(offset));
        if (written <= 0) {
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
        offset += static_cast<uint64_t>(written);
    }
    return true;
}

void BlockNonce(const ZelPack::KeyBlock& keys, uint32_t index, unsigned char nonce[12]) {
    std::memcpy(nonce, keys.iv.data(), 12);
    nonce[0] = static_cast<unsigned char>(index >> 24);
    nonce[1] = static_cast<unsigned char>(index >> 16);
    nonce[2] = static_cast<unsigned char>(index >> 8);
    nonce[3] = static_cast<unsigned char>(index);
}

bool EncryptBlock(EVP_CIPHER_CTX* context, const ZelPack::KeyBlock& keys, uint32_t index,
                  const unsigned char* plain, uint32_t size, unsigned char* out) {
    unsigned char nonce[12];
    BlockNonce(keys, index, nonce);
    int length = 0;
    int tail = 0;
    return EVP_EncryptInit_ex(context, EVP_aes_128_gcm(), nullptr, Bytes(keys.key), nonce) == 1 &&
           EVP_EncryptUpdate(context, nullptr, &length, Bytes(keys.aad), 16) == 1 &&
           EVP_EncryptUpdate(context, out, &length, plain, static_cast<int>(size)) == 1 &&
           EVP_EncryptFinal_ex(context, out + length, &tail) == 1 &&
           static_cast<uint32_t>(length + tail) == size &&
           EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_GET_TAG, kTagBytes, out + size) == 1;
}

std::string FinishHex(EVP_MD_CTX* digest) {
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(digest, hash, &length) != 1) {
        return std::string();
    }
    return Zel::Core::HexUtil::Encode(hash, length);
}

void Plaintext::fill(unsigned char* out, size_t size) {
    for (size_t i = 0; i < size; i += 8) {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        std::memcpy(out + i, &state_, std::min<size_t>(8, size - i));
    }
}

namespace {

// Encrypts the payload's blocks into fd from `offset` on; the plaintext's
// SHA-256 in hex, or "" on failure.
std::string WriteBlocks(int fd, uint64_t offset, uint64_t plainBytes,
                        const ZelPack::KeyBlock& keys) {
    CipherPtr cipher(EVP_CIPHER_CTX_new());
    DigestPtr digest(EVP_MD_CTX_new());
    bool ok = cipher && digest && EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) == 1;
    std::vector<unsigned char> plain(kBlockSize);
    std::vector<unsigned char> out(static_cast<size_t>(kChunkBlocks) * (kBlockSize + kTagBytes));
    Plaintext source;
    const uint64_t blocks = (plainBytes + kBlockSize - 1) / kBlockSize;
    for (uint64_t block = 0; ok && block < blocks;) {
        size_t used = 0;
        for (uint32_t i = 0; ok && i < kChunkBlocks && block < blocks; ++i, ++block) {
            auto size = static_cast<uint32_t>(
                std::min<uint64_t>(kBlockSize, plainBytes - block * kBlockSize));
            source.fill(plain.data(), size);
            ok = EVP_DigestUpdate(digest.get(), plain.data(), size) == 1 &&
                 EncryptBlock(cipher.get(), keys, static_cast<uint32_t>(block), plain.data(), size,
                              out.data() + used);
            used += size + kTagBytes;
        }
        ok = ok && WriteAll(fd, out.data(), used, offset);
        offset += used;
    }
    return ok ? FinishHex(digest.get()) : std::string();
}

}  // namespace

bool WritePayload(const PayloadSpec& spec, const std::string& path, uint64_t plainBytes,
                  Payload& payload, std::string& error) {
    ZelPack::Options options;
    options.blockSize = kBlockSize;
    options.version = "5.0.0";
    options.displayText = spec.displayText;
    options.audiences = spec.audiences;
    options.url = spec.url;
    options.signKeyPem = ReadText(spec.pkiDir + "/signer.key");
    options.signCertPem = ReadText(spec.pkiDir + "/signer.crt");
    options.intermediateCertPem = ReadText(spec.pkiDir + "/update-ca.crt");
    options.deviceCertPem = ReadText(spec.pkiDir + "/device.crt");
    ZelPack::Package seed;
    if (!ZelPack::Pack(std::string(1, 'x'), options, seed, error)) {
        return false;
    }
    Json::Value header(Json::objectValue);
    header["alg"] = "RS512";
    header["typ"] = "JWT";
    Json::Value claims = seed.claims;
    claims["siz"] = Json::UInt64(plainBytes);
    // The hash is only known at the end; its hex is always this long, and so
    // is the token, which lets the blocks go behind it first.
    claims["hsh"] = std::string(64, '0');
    std::string token;
    if (!ZelPack::SignToken(header, claims, options.signKeyPem, token, error)) {
        return false;
    }
    const bool local = spec.url.empty();
    payload.path = path;
    payload.plainBytes = plainBytes;
    payload.dataOffset = local ? 4 + token.size() : 0;

    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot create " + path;
        return false;
    }
    std::string hex = WriteBlocks(fd, payload.dataOffset, plainBytes, seed.keys);
    bool ok = !hex.empty();
    if (ok) {
        claims["hsh"] = hex;
        size_t reserved = token.size();
        ok = ZelPack::SignToken(header, claims, options.signKeyPem, token, error) &&
             (!local || token.size() == reserved);
    }
    if (ok && local) {
        auto size = static_cast<uint32_t>(token.size());
        unsigned char prefix[4] = {
            static_cast<unsigned char>(size >> 24), static_cast<unsigned char>(size >> 16),
            static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)};
        ok = WriteAll(fd, prefix, sizeof prefix, 0) && WriteAll(fd, Bytes(token), size, 4);
    }
    ok = close(fd) == 0 && ok;
    if (!ok) {
        if (error.empty()) {
            error = "cannot write the payload " + path;
        }
        unlink(path.c_str());
        return false;
    }
    payload.token = token;
    payload.hash = hex;
    payload.keys = seed.keys;
    return true;
}

}  // namespace ZelBench
