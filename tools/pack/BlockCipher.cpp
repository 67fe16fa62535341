#include <openssl/evp.h>

#include <algorithm>
#include <memory>

#include "tools/pack/Pack.h"

namespace ZelPack {

namespace {

constexpr size_t kTagSize = 16;
constexpr size_t kPartSize = size_t{1} << 30;

struct CipherFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};

// The template with the block index, big-endian, over its first four bytes.
std::string BlockNonce(const std::string& iv, uint32_t index) {
    std::string nonce = iv;
    nonce[0] = static_cast<char>(index >> 24);
    nonce[1] = static_cast<char>(index >> 16);
    nonce[2] = static_cast<char>(index >> 8);
    nonce[3] = static_cast<char>(index);
    return nonce;
}

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

bool EncryptBlock(EVP_CIPHER_CTX* ctx, const char* plain, size_t size, const KeyBlock& keys,
                  uint32_t index, std::string& out) {
    std::string nonce = BlockNonce(keys.iv, index);
    int length = 0;
    if (EVP_EncryptInit_ex(ctx, EVP_aes_128_gcm(), nullptr, nullptr, nullptr) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(nonce.size()), nullptr) !=
            1 ||
        EVP_EncryptInit_ex(ctx, nullptr, nullptr, Bytes(keys.key), Bytes(nonce)) != 1 ||
        EVP_EncryptUpdate(ctx, nullptr, &length, Bytes(keys.aad),
                          static_cast<int>(keys.aad.size())) != 1) {
        return false;
    }
    size_t start = out.size();
    out.resize(start + size + kTagSize);
    auto* cipher = reinterpret_cast<unsigned char*>(&out[start]);
    // A block may be 2^31 bytes, one more than an int counts: feed it in parts.
    size_t written = 0;
    for (size_t done = 0; done < size;) {
        int part = static_cast<int>(std::min<size_t>(size - done, kPartSize));
        int out = 0;
        if (EVP_EncryptUpdate(ctx, cipher + written, &out,
                              reinterpret_cast<const unsigned char*>(plain + done), part) != 1) {
            return false;
        }
        done += static_cast<size_t>(part);
        written += static_cast<size_t>(out);
    }
    int tail = 0;
    if (EVP_EncryptFinal_ex(ctx, cipher + written, &tail) != 1 ||
        written + static_cast<size_t>(tail) != size) {
        return false;
    }
    return EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagSize),
                               cipher + size) == 1;
}

}  // namespace

std::string EncryptBlocks(const std::string& plaintext, uint32_t blockSize, const KeyBlock& keys) {
    if (blockSize == 0 || keys.key.size() != 16 || keys.aad.size() != 16 || keys.iv.size() != 12) {
        return std::string();
    }
    uint64_t blocks = (static_cast<uint64_t>(plaintext.size()) + blockSize - 1) / blockSize;
    if (blocks > UINT32_MAX) {
        return std::string();
    }
    std::unique_ptr<EVP_CIPHER_CTX, CipherFree> ctx(EVP_CIPHER_CTX_new());
    if (!ctx) {
        return std::string();
    }
    std::string encrypted;
    encrypted.reserve(plaintext.size() + blocks * kTagSize);
    for (uint64_t i = 0; i < blocks; ++i) {
        size_t offset = static_cast<size_t>(i * blockSize);
        size_t size = std::min<size_t>(blockSize, plaintext.size() - offset);
        if (!EncryptBlock(ctx.get(), plaintext.data() + offset, size, keys,
                          static_cast<uint32_t>(i), encrypted)) {
            return std::string();
        }
    }
    return encrypted;
}

}  // namespace ZelPack
