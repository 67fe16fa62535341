// PayloadManager: staging the payload, one block at a time.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "Core/Platform/HexUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/StringUtil.h"
#include "Core/Platform/TimeManager.h"
#include "SoftwareUpdate/Platform/PayloadManager.h"

namespace Zel {
namespace Su {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Platform/PayloadManager";
constexpr const char* kInternalProblem = "internal problem";
constexpr long kFileProtocol = 0x00000400;  // CURLPROTO_FILE, as the log shows it
constexpr long kWebProtocols = 0x00000003;  // CURLPROTO_HTTP | CURLPROTO_HTTPS
constexpr long kMaxRedirects = 5;
}  // namespace

// Per-block lines cost a flag test, not a look at the logger, when debug is off.
#define ZEL_PAYLOAD_DEBUG(...)                                            \
    do {                                                                  \
        if (debug_) {                                                     \
            ZEL_LOG(ServiceSu, CategoryFlow, SeverityDebug, __VA_ARGS__); \
        }                                                                 \
    } while (0)

bool PayloadManager::refuse(const char* reason, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string detail = StringUtil::Vform(format, args);
    va_end(args);
    ZEL_LOG(ServiceSu, CategoryFlow, SeverityError, "%s", detail.c_str());
    SetFailure(failure_.failure, failure_.reason, failure_.time, "%s",
               reason != nullptr ? reason : detail.c_str());
    return false;
}

bool PayloadManager::internal(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string detail = StringUtil::Vform(format, args);
    va_end(args);
    return refuse(kInternalProblem, "%s", detail.c_str());
}

void PayloadManager::RemoveStagingFile(const std::string& path) {
    if (!path.empty() && unlink(path.c_str()) != 0 && errno != ENOENT) {
        ZEL_LOG(ServiceSu, CategoryFlow, SeverityError, "staging file cannot be removed");
    }
}

void PayloadManager::removeStagingFile() {
    unlockStagingFile();
    RemoveStagingFile(dstFile_);
}

#define ZEL_PAYLOAD_SETOPT(option, value)                                                       \
    do {                                                                                        \
        CURLcode code = curl_easy_setopt(handle_.get(), option, value);                         \
        if (code != CURLE_OK) {                                                                 \
            return internal("payload problem - curl_easy_setopt(" #option ") returned (%d) %s", \
                            static_cast<int>(code), curl_easy_strerror(code));                  \
        }                                                                                       \
    } while (0)

bool PayloadManager::prepareHandle() {
    handle_.reset(curl_easy_init());
    if (!handle_) {
        return internal("payload problem - curl_easy_init() failed");
    }
    ZEL_PAYLOAD_SETOPT(CURLOPT_NOSIGNAL, 1L);
    ZEL_PAYLOAD_SETOPT(CURLOPT_WRITEDATA, this);
    ZEL_PAYLOAD_SETOPT(CURLOPT_WRITEFUNCTION, CurlDecryptFunc);
    // A block in as few reads and callbacks as libcurl allows.
    long buffer = static_cast<long>(std::min<uint64_t>(
        static_cast<uint64_t>(metadata_.blockSize) + kTagBytes, CURL_MAX_READ_SIZE));
    ZEL_PAYLOAD_SETOPT(CURLOPT_BUFFERSIZE, buffer);
    configured_ = Source::None;
    return true;
}

bool PayloadManager::lockStagingFile(const Staging& staging) {
    if (failure_.failure) {
        return false;
    }
    staging_ = staging;
    currentBlock_ = 0;
    dstBufCurLen_ = 0;
    dstTagCurLen_ = 0;
    bool locked = [&] {
        fd_ = open(dstFile_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd_ < 0) {
            return internal("staging file cannot be opened");
        }
        struct stat info {};
        if (fstat(fd_, &info) != 0 || !S_ISREG(info.st_mode)) {
            return internal("staging file cannot be examined");
        }
        auto size = static_cast<long long>(info.st_size);
        ZEL_LOG(ServiceSu, CategoryFlow, SeverityInfo,
                "Staging file contains %lli bytes of %llu total", size,
                static_cast<unsigned long long>(metadata_.totalSize));
        const uint64_t blockSize = metadata_.blockSize;
        uint64_t keep = static_cast<uint64_t>(size);
        if (keep == metadata_.totalSize) {
            resumedBlocks_ = metadata_.totalBlocks;
        } else {
            // A file larger than the payload is not one of ours: start afresh.
            if (keep > metadata_.totalSize) {
                keep = 0;
            }
            resumedBlocks_ = static_cast<uint32_t>(keep / blockSize);
            uint64_t rest = static_cast<uint64_t>(size) - resumedBlocks_ * blockSize;
            if (rest != 0) {
                ZEL_LOG(ServiceSu, CategoryFlow, SeverityInfo,
                        "Truncating %u bytes from staging file", static_cast<unsigned>(rest));
                if (ftruncate(fd_, static_cast<off_t>(resumedBlocks_ * blockSize)) != 0) {
                    return internal("staging file cannot be truncated");
                }
            }
        }
        buffer_.reset(new (std::nothrow) unsigned char[metadata_.blockSize]);
        if (!buffer_) {
            return internal("payload problem - cannot allocate decrypt memory");
        }
        if (!prepareHandle()) {
            return false;
        }
        hash_.reset(EVP_MD_CTX_new());
        if (!hash_ || EVP_DigestInit_ex(hash_.get(), EVP_sha256(), nullptr) != 1) {
            return internal("payload problem - hash cannot be initialized");
        }
        return true;
    }();
    if (!locked) {
        unlockStagingFile();
    }
    return locked;
}

void PayloadManager::unlockStagingFile() {
    cipher_.reset();
    hash_.reset();
    handle_.reset();
    multi_.reset();
    buffer_.reset();
    if (fd_ >= 0) {
        if (close(fd_) != 0) {
            ZEL_LOG(ServiceSu, CategoryFlow, SeverityError, "staging file cannot be closed");
        }
        fd_ = -1;
    }
}

bool PayloadManager::startCipher(uint32_t block) {
    cipher_.reset(EVP_CIPHER_CTX_new());
    if (!cipher_) {
        return internal("payload problem - cannot create context for block %u", block);
    }
    unsigned char nonce[12];
    std::memcpy(nonce, metadata_.blockIv.data(), sizeof nonce);
    nonce[0] = static_cast<unsigned char>(block >> 24);
    nonce[1] = static_cast<unsigned char>(block >> 16);
    nonce[2] = static_cast<unsigned char>(block >> 8);
    nonce[3] = static_cast<unsigned char>(block);
    const auto* key = reinterpret_cast<const unsigned char*>(metadata_.contentKey.data());
    if (EVP_DecryptInit_ex(cipher_.get(), EVP_aes_128_gcm(), nullptr, key, nonce) != 1) {
        return internal("payload problem - cannot initialize for block %u", block);
    }
    int length = 0;
    const auto* aad = reinterpret_cast<const unsigned char*>(metadata_.blockAad.data());
    if (EVP_DecryptUpdate(cipher_.get(), nullptr, &length, aad, 16) != 1) {
        return internal("payload problem - cannot update aad for block %u", block);
    }
    return true;
}

// Points the handle at the staging file or at the payload; done when the
// source changes, not for every block.
bool PayloadManager::configureSource(bool resumed) {
    Source wanted = resumed ? Source::Staging : Source::Payload;
    if (configured_ == wanted) {
        return true;
    }
    configured_ = Source::None;
    const std::string& url = resumed ? stagingUrl_ : sourceUrl_;
    if (resumed || metadata_.local) {
        ZEL_PAYLOAD_SETOPT(CURLOPT_PROTOCOLS_STR, "file");
        ZEL_PAYLOAD_SETOPT(CURLOPT_CONNECTTIMEOUT_MS, 0L);
        ZEL_PAYLOAD_SETOPT(CURLOPT_TIMEOUT_MS, 0L);
    } else {
        (void)kWebProtocols;
        ZEL_PAYLOAD_SETOPT(CURLOPT_PROTOCOLS_STR, "http,https");
        ZEL_PAYLOAD_SETOPT(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
        ZEL_PAYLOAD_SETOPT(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(staging_.connectTimeoutMs));
        ZEL_PAYLOAD_SETOPT(CURLOPT_TIMEOUT_MS, static_cast<long>(staging_.messageTimeoutMs));
    }
    ZEL_PAYLOAD_SETOPT(CURLOPT_FOLLOWLOCATION, resumed ? 0L : 1L);
    ZEL_PAYLOAD_SETOPT(CURLOPT_MAXREDIRS, kMaxRedirects);
    ZEL_PAYLOAD_SETOPT(CURLOPT_URL, url.c_str());
    configured_ = wanted;
    return true;
}

// The block's range in its source, fetched with the retries it is allowed.
bool PayloadManager::transferBlock(uint32_t block, bool resumed) {
    char range[64];
    const std::string& url = resumed ? stagingUrl_ : sourceUrl_;
    if (resumed) {
        uint64_t start = static_cast<uint64_t>(block) * metadata_.blockSize;
        snprintf(range, sizeof range, "%llu-%llu", static_cast<unsigned long long>(start),
                 static_cast<unsigned long long>(start + dstBufMaxLen_ - 1));
        ZEL_PAYLOAD_DEBUG("Resumed CURLOPT_URL value: \"%s\"", url.c_str());
        ZEL_PAYLOAD_DEBUG("Resumed CURLOPT_RANGE value: \"%s\"", range);
        ZEL_PAYLOAD_DEBUG("Resumed CURLOPT_PROTOCOLS value: 0x%08x",
                          static_cast<unsigned>(kFileProtocol));
    } else {
        // Kept in 32 bits on purpose: the source format is limited so.
        uint32_t start = srcOffset_ + block * (metadata_.blockSize + kTagBytes);
        snprintf(range, sizeof range, "%llu-%llu", static_cast<unsigned long long>(start),
                 static_cast<unsigned long long>(start) + dstBufMaxLen_ + kTagBytes - 1);
        ZEL_PAYLOAD_DEBUG("Encrypted CURLOPT_URL value: \"%s\"", url.c_str());
        ZEL_PAYLOAD_DEBUG("Encrypted CURLOPT_RANGE value: \"%s\"", range);
    }
    if (!configureSource(resumed)) {
        return false;
    }
    ZEL_PAYLOAD_SETOPT(CURLOPT_RANGE, range);

    const bool network = !resumed && !metadata_.local;
    const uint32_t attempts = network && staging_.maxRetryCount > 0 ? staging_.maxRetryCount : 1;
    for (uint32_t attempt = 1;; ++attempt) {
        if (attempt > 1) {
            timespec now = TimeManager::Instance().now();
            timespec deadline{};
            TimeManager::Instance().updateTimestamp(now, deadline, staging_.retryDelayFixedMs,
                                                    staging_.retryDelayVariedMs);
            long long wait = (static_cast<long long>(deadline.tv_sec) - now.tv_sec) * 1000 +
                             (deadline.tv_nsec - now.tv_nsec) / 1000000;
            ZEL_LOG(ServiceSu, CategoryFlow, SeverityInfo,
                    "Payload delaying (%u of %u) for %i.%03i seconds", attempt, attempts,
                    static_cast<int>(wait / 1000), static_cast<int>(wait % 1000));
            if (!staging_.waitUntil || !staging_.waitUntil(deadline)) {
                return false;
            }
        }
        dstBufCurLen_ = 0;
        dstTagCurLen_ = 0;
        if (!resumed && !startCipher(block)) {
            return false;
        }
        CURLcode code = Http::PerformEasy(multi_, handle_.get(), staging_.abort, url);
        if (failure_.failure || aborted()) {
            return false;
        }
        long status = 0;
        if (code == CURLE_OK) {
            curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
        }
        if (code == CURLE_OK && status < 400) {
            return true;
        }
        bool last = attempt >= attempts;
        if (code != CURLE_OK) {
            ZEL_LOG(ServiceSu, CategoryFlow, SeverityError,
                    "payload problem - attempt %d of %d cannot transfer data for block %u, curl "
                    "(%d) %s",
                    static_cast<int>(attempt), static_cast<int>(attempts), block,
                    static_cast<int>(code), curl_easy_strerror(code));
            if (last) {
                return refuse(nullptr,
                              "payload problem - cannot transfer data for block %u, curl (%d) %s",
                              block, static_cast<int>(code), curl_easy_strerror(code));
            }
        } else {
            ZEL_LOG(
                ServiceSu, CategoryFlow, SeverityError,
                "payload problem - attempt %d of %d cannot transfer data for block %u, http (%d)",
                static_cast<int>(attempt), static_cast<int>(attempts), block,
                static_cast<int>(status));
            if (last) {
                return refuse(nullptr,
                              "payload problem - cannot transfer data for block %u, http (%d)",
                              block, static_cast<int>(status));
            }
        }
    }
}

bool PayloadManager::finishBlock(uint32_t block, bool resumed) {
    if (!resumed) {
        if (dstTagCurLen_ != static_cast<int32_t>(kTagBytes)) {
            return refuse(
                nullptr, "payload problem - cannot process tag for block %u, read %d instead of %d",
                block, dstTagCurLen_, static_cast<int>(kTagBytes));
        }
        if (EVP_CIPHER_CTX_ctrl(cipher_.get(), EVP_CTRL_GCM_SET_TAG, kTagBytes, tag_) != 1) {
            return internal("payload problem - cannot set tag for block %u", block);
        }
        int length = 0;
        if (EVP_DecryptFinal_ex(cipher_.get(), buffer_.get() + dstBufCurLen_, &length) != 1) {
            return refuse(nullptr, "payload problem - cannot verify block %u", block);
        }
        dstBufCurLen_ += length;
    }
    if (dstBufCurLen_ != dstBufMaxLen_) {
        return refuse(
            nullptr, "payload problem - cannot process data for block %u, read %u instead of %u",
            block, static_cast<unsigned>(dstBufCurLen_), static_cast<unsigned>(dstBufMaxLen_));
    }
    if (EVP_DigestUpdate(hash_.get(), buffer_.get(), static_cast<size_t>(dstBufCurLen_)) != 1) {
        return internal("payload problem - hash cannot be updated for block %u", block);
    }
    if (block + 1 == metadata_.totalBlocks) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(hash_.get(), digest, &length) != 1) {
            return internal("payload problem - hash cannot be finalized");
        }
        std::string hex = HexUtil::Encode(digest, length);
        ZEL_LOG(ServiceSu, CategoryFlow, SeverityInfo, "dstHash = %s", hex.c_str());
        if (metadata_.hash != hex) {
            return refuse(nullptr, "payload problem - cannot verify hash, %s instead of %s",
                          hex.c_str(), metadata_.hash.c_str());
        }
    }
    return resumed || writeBlock(block);
}

bool PayloadManager::writeBlock(uint32_t block) {
    const off_t offset = static_cast<off_t>(block) * metadata_.blockSize;
    int32_t position = 0;
    while (position < dstBufCurLen_) {
        ssize_t written = pwrite(fd_, buffer_.get() + position,
                                 static_cast<size_t>(dstBufCurLen_ - position), offset + position);
        ZEL_PAYLOAD_DEBUG("Staging %d bytes to position %d at offset %lli",
                          static_cast<int>(written), static_cast<int>(position),
                          static_cast<long long>(offset + position));
        if (written <= 0) {
            return internal("staging file cannot be written for block %u", block);
        }
        position += static_cast<int32_t>(written);
    }
    return true;
}

bool PayloadManager::downloadNextBlock() {
    if (failure_.failure) {
        return false;
    }
    if (fd_ < 0) {
        return internal("staging cannot be requested prior to locking");
    }
    const uint32_t block = currentBlock_;
    if (block >= metadata_.totalBlocks) {
        return internal("staging cannot be requested on a completed file");
    }
    debug_ = Logger::Instance().test(ServiceSu, CategoryFlow, SeverityDebug);
    uint64_t rest = metadata_.totalSize % metadata_.blockSize;
    bool last = block + 1 == metadata_.totalBlocks;
    dstBufMaxLen_ = static_cast<int32_t>(last && rest != 0 ? rest : metadata_.blockSize);
    dstBufCurLen_ = 0;
    dstTagCurLen_ = 0;
    resumedBlock_ = block < resumedBlocks_;
    if (!transferBlock(block, resumedBlock_) || !finishBlock(block, resumedBlock_)) {
        cipher_.reset();
        return false;
    }
    cipher_.reset();
    ++currentBlock_;
    return currentBlock_ < metadata_.totalBlocks;
}

size_t PayloadManager::CurlDecryptFunc(char* data, size_t size, size_t nmemb, void* self) {
    return static_cast<PayloadManager*>(self)->receive(data, size * nmemb);
}

size_t PayloadManager::receive(const char* data, size_t n) {
    ZEL_PAYLOAD_DEBUG("Received %u bytes for block %u at offset %u", static_cast<unsigned>(n),
                      currentBlock_, static_cast<unsigned>(dstBufCurLen_));
    if (failure_.failure) {
        return 0;
    }
    const size_t room = static_cast<size_t>(dstBufMaxLen_ - dstBufCurLen_);
    if (resumedBlock_) {
        // More than the range asked for is not our staging file.
        if (n > room) {
            return 0;
        }
        std::memcpy(buffer_.get() + dstBufCurLen_, data, n);
        dstBufCurLen_ += static_cast<int32_t>(n);
        return n;
    }
    size_t plain = n < room ? n : room;
    size_t overflow = n - plain;
    if (overflow > kTagBytes - static_cast<size_t>(dstTagCurLen_)) {
        refuse(nullptr, "payload problem - cannot process tag for block %u, read %d instead of %d",
               currentBlock_, dstTagCurLen_ + static_cast<int>(overflow),
               static_cast<int>(kTagBytes));
        return 0;
    }
    if (plain > 0) {
        int length = 0;
        if (EVP_DecryptUpdate(cipher_.get(), buffer_.get() + dstBufCurLen_, &length,
                              reinterpret_cast<const unsigned char*>(data),
                              static_cast<int>(plain)) != 1) {
            refuse(nullptr, "payload problem - cannot update block %u at offset %u", currentBlock_,
                   static_cast<unsigned>(dstBufCurLen_));
            return 0;
        }
        dstBufCurLen_ += length;
    }
    std::memcpy(tag_ + dstTagCurLen_, data + plain, overflow);
    dstTagCurLen_ += static_cast<int32_t>(overflow);
    return n;
}

}  // namespace Su
}  // namespace Zel
