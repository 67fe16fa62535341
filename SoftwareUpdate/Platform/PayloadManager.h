#pragma once

#include <curl/curl.h>
#include <openssl/evp.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Core/Platform/Http.h"
#include "SoftwareUpdate/Platform/UpdateMetadata.h"

namespace Zel {
namespace Su {

// One offered update: its verified metadata, and the staging of its payload
// block by block into the staging file, decrypting, authenticating and
// hashing as it goes, resuming whatever an earlier run left. Once a failure
// is recorded every step returns at once. Used by UpdateControl alone.
class PayloadManager {
public:
    static constexpr uint32_t kTagBytes = 16;
    // A token longer than this at the front of a local payload file is not one.
    static constexpr uint32_t kMaxTokenBytes = 1024 * 1024;

    // How a network payload is fetched.
    struct Staging {
        uint32_t connectTimeoutMs = 0;
        uint32_t messageTimeoutMs = 0;
        uint32_t maxRetryCount = 1;
        uint32_t retryDelayFixedMs = 0;
        uint32_t retryDelayVariedMs = 0;
        // Ends a transfer at once when it turns true (the agent stops).
        const std::atomic<bool>* abort = nullptr;
        // Sleeps until the deadline; false when woken to stop.
        std::function<bool(const timespec& deadline)> waitUntil;
    };

    // Reads the token from the front of a local payload file.
    static void ReadMetadata(const std::string& location, std::string& metadata, bool& failure,
                             std::string& failReason, std::string& failTime);
    static void SetFailure(bool& failure, std::string& failReason, std::string& failTime,
                           const char* format, ...) __attribute__((format(printf, 4, 5)));
    static void RemoveStagingFile(const std::string& path);

    // Verifies the token; the update is local when `localLocation` is not empty.
    PayloadManager(const std::string& metadata, const std::string& localLocation,
                   const std::string& stagingFile, const ProductKit& kit);
    ~PayloadManager();
    PayloadManager(const PayloadManager&) = delete;
    PayloadManager& operator=(const PayloadManager&) = delete;

    bool lockStagingFile(const Staging& staging);
    // One block; true while more blocks remain. Stopped by the abort flag, it
    // returns false with no failure recorded and the block still to do.
    bool downloadNextBlock();
    void unlockStagingFile();
    void removeStagingFile();
    static size_t CurlDecryptFunc(char* data, size_t size, size_t nmemb, void* self);

    bool isLocked() const { return fd_ >= 0; }
    bool isComplete() const { return !failure_.failure && currentBlock_ == metadata_.totalBlocks; }
    bool getFailure() const { return failure_.failure; }
    const std::string& getFailReason() const { return failure_.reason; }
    const std::string& getFailTime() const { return failure_.time; }
    // Records a failure found by the caller ("update superseded").
    void fail(const char* reason);
    bool getMandatory() const { return metadata_.mandatory; }
    bool getAutoAnswer() const { return metadata_.autoAnswer; }
    const std::string& getVersion() const { return metadata_.version; }
    const std::string& getDisplayText() const { return metadata_.displayText; }
    const std::string& getHash() const { return metadata_.hash; }
    const std::string& getDstFile() const { return dstFile_; }
    uint32_t getPercentDownloaded() const;
    uint32_t getResumedBlocks() const { return resumedBlocks_; }
    const UpdateMetadata& metadata() const { return metadata_; }

    void logStateDebug() const;

private:
    struct CipherFree {
        void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    };
    struct DigestFree {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };

    bool refuse(const char* reason, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool internal(const char* format, ...) __attribute__((format(printf, 2, 3)));
    bool prepareHandle();
    bool startCipher(uint32_t block);
    bool configureSource(bool resumed);
    bool transferBlock(uint32_t block, bool resumed);
    bool finishBlock(uint32_t block, bool resumed);
    bool writeBlock(uint32_t block);
    bool aborted() const { return staging_.abort != nullptr && staging_.abort->load(); }
    size_t receive(const char* data, size_t n);

    UpdateMetadata metadata_;
    FailureRecord failure_;
    std::string localLocation_;
    std::string dstFile_;
    std::string sourceUrl_;   // where new blocks come from
    std::string stagingUrl_;  // where resumed blocks are read back
    Staging staging_;

    uint32_t currentBlock_ = 0;
    uint32_t resumedBlocks_ = 0;
    uint32_t srcOffset_ = 0;
    int32_t dstBufMaxLen_ = 0;
    int32_t dstBufCurLen_ = 0;
    int32_t dstTagCurLen_ = 0;
    bool resumedBlock_ = false;  // the block in transfer is read back from the staging file
    bool debug_ = false;         // debug lines are logged, looked up once per block
    enum class Source { None, Staging, Payload };
    Source configured_ = Source::None;  // where the handle points
    int fd_ = -1;
    // The multi handle outlives the easy one, as in Http::Request.
    std::unique_ptr<CURLM, Core::Http::MultiDeleter> multi_;
    std::unique_ptr<CURL, Core::Http::CurlDeleter> handle_;
    std::unique_ptr<unsigned char[]> buffer_;
    unsigned char tag_[kTagBytes] = {};
    std::unique_ptr<EVP_MD_CTX, DigestFree> hash_;
    std::unique_ptr<EVP_CIPHER_CTX, CipherFree> cipher_;
};

}  // namespace Su
}  // namespace Zel
