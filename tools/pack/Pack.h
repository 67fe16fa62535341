#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

// An update publisher's toolkit: everything the agent verifies, made from a
// plaintext payload and the publisher's keys. zel-pack is its command line;
// zel-cloud and the tests use it as a library.
namespace ZelPack {

// The 44 bytes the device decrypts from the "key" claim.
struct KeyBlock {
    std::string key;  // 16 bytes, AES-128 content key
    std::string aad;  // 16 bytes, given with every block
    std::string iv;   // 12 bytes; its first 4 are replaced by the block index
    static KeyBlock Random();
    std::string bytes() const;  // key + aad + iv
};

// Block i of the plaintext (every block blockSize bytes, the last one the
// rest) as its AES-128-GCM ciphertext followed by the 16-byte tag, with the
// nonce iv[4..] behind the big-endian index i and the block AAD.
std::string EncryptBlocks(const std::string& plaintext, uint32_t blockSize, const KeyBlock& keys);

// RSA-OAEP (OpenSSL's default SHA-1 parameters) of `bytes` to the public key
// of the PEM certificate, as standard base64 with padding.
bool SealKeyBlock(const std::string& bytes, const std::string& deviceCertPem, std::string& sealed,
                  std::string& error);

// base64(header) "." base64(claims) "." base64(RS512 signature of the first
// two segments joined by "."), standard base64 with padding; the JSON is
// written compactly. `signKeyPem` is an unencrypted RSA private key.
bool SignToken(const Json::Value& header, const Json::Value& claims, const std::string& signKeyPem,
               std::string& token, std::string& error);

// 4-byte big-endian token length, the token, the encrypted blocks.
std::string LocalFile(const std::string& token, const std::string& encrypted);

struct Options {
    uint32_t blockSize = 65536;
    std::string version;                 // "upn"
    std::string displayText;             // "udt"
    std::vector<std::string> audiences;  // "aud": the software versions it applies to
    std::string url;                     // "url": empty for a local payload file
    bool mandatory = false;              // "man"
    bool autoAnswer = false;             // "aas"
    std::string opid;         // "opd"; empty: the device certificate's, before its first "."
    std::string sub;          // "sub"
    std::string upf;          // "upf"
    uint64_t upi = 0;         // "upi"
    std::string signKeyPem;   // RSA key of the signing certificate
    std::string signCertPem;  // "crt"
    std::string intermediateCertPem;  // "int"
    std::string deviceCertPem;        // the key block is sealed to its public key
};

struct Package {
    std::string token;
    std::string encrypted;  // the blocks, as served for a network update
    std::string localFile;  // LocalFile(token, encrypted)
    std::string hash;       // SHA-256 of the plaintext, 64 lower-case hex digits
    KeyBlock keys;
    Json::Value claims;
};

// Every claim of an update of `plaintext`; false with a reason for inputs
// that would make a token no device accepts (no version, a zero block size,
// an empty payload, keys that do not load).
bool Pack(const std::string& plaintext, const Options& options, Package& package,
          std::string& error);

// A token, or a local payload file: its header and claims, and whether its
// signature verifies against its own "crt". False when it cannot be read.
struct Inspection {
    Json::Value header;
    Json::Value claims;
    bool signatureValid = false;
    uint64_t encryptedBytes = 0;  // after the token, for a local payload file
};
bool Inspect(const std::string& tokenOrFile, Inspection& inspection, std::string& error);

}  // namespace ZelPack
