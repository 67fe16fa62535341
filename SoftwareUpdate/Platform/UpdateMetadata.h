#pragma once

#include <cstdint>
#include <string>

namespace Zel {
namespace Su {

// What the device checks an update against: the product kit of its identity.
struct ProductKit {
    std::string domain;              // the signing certificate's CN must be this
    std::string opid;                // "opd" must be this
    std::string keyPem;              // decrypts the content key block
    std::string password;            // of keyPem; empty for none
    std::string swVersion;           // "aud" must list it
    uint32_t maxBlockSizeBytes = 0;  // 0: no limit
};

// A failure, once recorded, for good.
struct FailureRecord {
    bool failure = false;
    std::string reason;
    std::string time;  // UTC, "%FT%TZ"
};

// The verified claims of an update's metadata token.
struct UpdateMetadata {
    static constexpr size_t kKeyBlockBytes = 44;

    bool local = false;
    bool mandatory = false;
    bool autoAnswer = false;
    uint32_t blockSize = 0;
    uint64_t totalSize = 0;
    uint32_t totalBlocks = 0;
    std::string version;
    std::string displayText;
    std::string opid;
    std::string signCert;
    std::string chainCert;
    std::string url;
    std::string hash;
    std::string encryptedKey;
    std::string swVersions;
    std::string contentKey;  // 16 bytes
    std::string blockAad;    // 16 bytes
    std::string blockIv;     // 12 bytes, the first 4 replaced by the block index
};

}  // namespace Su
}  // namespace Zel
