// Update payloads for the benchmarks, made block by block so that one of
// gigabytes needs a few megabytes of memory (zel-pack and the cloud hold the
// whole payload), and the block crypto the benchmarks compare the agent with.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Core/Platform/OpenSsl.h"
#include "tools/pack/Pack.h"

namespace ZelBench {

constexpr uint32_t kBlockSize = 65536;
constexpr uint32_t kTagBytes = 16;
// Blocks encrypted and written at a time while making a payload.
constexpr uint32_t kChunkBlocks = 16;

std::string ReadText(const std::string& path);
const unsigned char* Bytes(const std::string& text);
bool WriteAll(int fd, const unsigned char* data, size_t size, uint64_t offset);

using CipherPtr = Zel::Core::CipherCtxPtr;
using DigestPtr = Zel::Core::MdCtxPtr;

// The nonce of a block: the iv with the big-endian block index in its first
// four bytes.
void BlockNonce(const ZelPack::KeyBlock& keys, uint32_t index, unsigned char nonce[12]);
// Ciphertext then tag, as zel-pack writes a block; `context` keeps the key.
bool EncryptBlock(EVP_CIPHER_CTX* context, const ZelPack::KeyBlock& keys, uint32_t index,
                  const unsigned char* plain, uint32_t size, unsigned char* out);
// The digest's value in hex, or "" on failure.
std::string FinishHex(EVP_MD_CTX* digest);

// Incompressible-looking bytes, cheaply: xorshift64.
class Plaintext {
public:
    void fill(unsigned char* out, size_t size);

private:
    uint64_t state_ = 0x9e3779b97f4a7c15ull;
};

// A payload as the agent receives it: its token, and a file with the
// encrypted blocks at `dataOffset` (behind the token for a local one).
struct Payload {
    std::string path;
    std::string token;
    uint64_t plainBytes = 0;
    uint64_t dataOffset = 0;
    std::string hash;
    ZelPack::KeyBlock keys;
    uint64_t encryptedBytes() const {
        return plainBytes + (plainBytes + kBlockSize - 1) / kBlockSize * kTagBytes;
    }
};

// What the token says besides size and hash, and the PKI that signs it (as
// make-pki.sh leaves it).
struct PayloadSpec {
    std::string pkiDir;
    std::string displayText;
    std::vector<std::string> audiences;
    // Empty for a local payload file, which carries its token in front.
    std::string url;
};

// Writes `plainBytes` of payload to `path`, encrypting and hashing block by
// block. Pack makes the keys and every claim from one byte; size and hash are
// then ours.
bool WritePayload(const PayloadSpec& spec, const std::string& path, uint64_t plainBytes,
                  Payload& payload, std::string& error);

}  // namespace ZelBench
