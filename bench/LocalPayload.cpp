// zel-bench-payload PKI_DIR OUT_FILE MIB: writes a local payload file of MIB
// MiB of plaintext, signed and sealed with the PKI's update keys (as
// make-pki.sh leaves them), for the lab's device (software 4.8.0). The blocks
// are encrypted and written one chunk at a time, so that a payload of
// gigabytes needs no more than a few megabytes of memory; zel-pack and the
// cloud hold the whole payload.
#include <fcntl.h>
#include <json/value.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Core/Platform/HexUtil.h"
#include "tools/pack/Pack.h"

namespace {

constexpr uint32_t kBlockSize = 65536;
constexpr uint32_t kTagBytes = 16;
constexpr uint32_t kChunkBlocks = 16;

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

struct CipherFree {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
struct DigestFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// Ciphertext then tag, as zel-pack writes a block: the nonce is the iv with
// the big-endian block index in its first four bytes.
bool EncryptBlock(EVP_CIPHER_CTX* context, const ZelPack::KeyBlock& keys, uint32_t index,
                  const unsigned char* plain, uint32_t size, unsigned char* out) {
    unsigned char nonce[12];
    std::memcpy(nonce, keys.iv.data(), sizeof nonce);
    for (int i = 0; i < 4; ++i) {
        nonce[i] = static_cast<unsigned char>(index >> (24 - 8 * i));
    }
    int length = 0;
    int tail = 0;
    return EVP_EncryptInit_ex(context, EVP_aes_128_gcm(), nullptr, Bytes(keys.key), nonce) == 1 &&
           EVP_EncryptUpdate(context, nullptr, &length, Bytes(keys.aad), 16) == 1 &&
           EVP_EncryptUpdate(context, out, &length, plain, static_cast<int>(size)) == 1 &&
           EVP_EncryptFinal_ex(context, out + length, &tail) == 1 &&
           static_cast<uint32_t>(length + tail) == size &&
           EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_GET_TAG, kTagBytes, out + size) == 1;
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

// Encrypts `plainBytes` of xorshift64 output into fd from `offset` on; the
// plaintext's SHA-256 in hex, or "" on failure.
std::string WriteBlocks(int fd, uint64_t offset, uint64_t plainBytes,
                        const ZelPack::KeyBlock& keys) {
    std::unique_ptr<EVP_CIPHER_CTX, CipherFree> cipher(EVP_CIPHER_CTX_new());
    std::unique_ptr<EVP_MD_CTX, DigestFree> digest(EVP_MD_CTX_new());
    bool ok = cipher && digest && EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) == 1;
    std::vector<unsigned char> plain(kBlockSize);
    std::vector<unsigned char> out(static_cast<size_t>(kChunkBlocks) * (kBlockSize + kTagBytes));
    uint64_t state = 0x9e3779b97f4a7c15ull;
    const uint64_t blocks = (plainBytes + kBlockSize - 1) / kBlockSize;
    for (uint64_t block = 0; ok && block < blocks;) {
        size_t used = 0;
        for (uint32_t i = 0; ok && i < kChunkBlocks && block < blocks; ++i, ++block) {
            auto size = static_cast<uint32_t>(
                std::min<uint64_t>(kBlockSize, plainBytes - block * kBlockSize));
            for (size_t at = 0; at < size; at += 8) {
                state ^= state << 13;
                state ^= state >> 7;
                state ^= state << 17;
                std::memcpy(plain.data() + at, &state, std::min<size_t>(8, size - at));
            }
            ok = EVP_DigestUpdate(digest.get(), plain.data(), size) == 1 &&
                 EncryptBlock(cipher.get(), keys, static_cast<uint32_t>(block), plain.data(), size,
                              out.data() + used);
            used += size + kTagBytes;
        }
        ok = ok && WriteAll(fd, out.data(), used, offset);
        offset += used;
    }
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    ok = ok && EVP_DigestFinal_ex(digest.get(), hash, &length) == 1;
    return ok ? Zel::Core::HexUtil::Encode(hash, length) : std::string();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 || std::atoll(argv[3]) <= 0) {
        std::fprintf(stderr, "usage: %s PKI_DIR OUT_FILE MIB\n", argv[0]);
        return 2;
    }
    std::string pki = argv[1];
    std::string path = argv[2];
    uint64_t plainBytes = static_cast<uint64_t>(std::atoll(argv[3])) << 20;

    ZelPack::Options options;
    options.blockSize = kBlockSize;
    options.version = "5.0.0";
    options.displayText = "Footprint benchmark";
    options.audiences = {"4.8.0"};
    options.signKeyPem = ReadText(pki + "/signer.key");
    options.signCertPem = ReadText(pki + "/signer.crt");
    options.intermediateCertPem = ReadText(pki + "/update-ca.crt");
    options.deviceCertPem = ReadText(pki + "/device.crt");
    // Pack makes the keys and every claim from one byte; size and hash are ours.
    ZelPack::Package seed;
    std::string error;
    if (!ZelPack::Pack(std::string(1, 'x'), options, seed, error)) {
        std::fprintf(stderr, "zel-bench-payload: %s\n", error.c_str());
        return 1;
    }
    Json::Value header(Json::objectValue);
    header["alg"] = "RS512";
    header["typ"] = "JWT";
    Json::Value claims = seed.claims;
    claims["siz"] = Json::UInt64(plainBytes);
    // The hash is known only at the end; its hex is always this long, and so
    // is the token, which lets the blocks go behind it first.
    claims["hsh"] = std::string(64, '0');
    std::string token;
    if (!ZelPack::SignToken(header, claims, options.signKeyPem, token, error)) {
        std::fprintf(stderr, "zel-bench-payload: %s\n", error.c_str());
        return 1;
    }
    const size_t reserved = token.size();

    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        std::fprintf(stderr, "zel-bench-payload: cannot create %s\n", path.c_str());
        return 1;
    }
    std::string hash = WriteBlocks(fd, 4 + reserved, plainBytes, seed.keys);
    bool ok = !hash.empty();
    if (ok) {
        claims["hsh"] = hash;
        ok = ZelPack::SignToken(header, claims, options.signKeyPem, token, error) &&
             token.size() == reserved;
    }
    if (ok) {
        auto size = static_cast<uint32_t>(token.size());
        unsigned char prefix[4] = {
            static_cast<unsigned char>(size >> 24), static_cast<unsigned char>(size >> 16),
            static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)};
        ok = WriteAll(fd, prefix, sizeof prefix, 0) && WriteAll(fd, Bytes(token), size, 4);
    }
    ok = close(fd) == 0 && ok;
    if (!ok) {
        std::fprintf(stderr, "zel-bench-payload: cannot write %s %s\n", path.c_str(),
                     error.c_str());
        unlink(path.c_str());
        return 1;
    }
    std::printf("%s sha256 %s\n", path.c_str(), hash.c_str());
    return 0;
}
