// PayloadManager: reading the token of a local payload file, verifying it,
// and what the record shows.
#include <arpa/inet.h>

#include <cstdarg>
#include <cstring>

#include "Core/Platform/Logger.h"
#include "Core/Platform/StringUtil.h"
#include "SoftwareUpdate/Platform/MetadataToken.h"
#include "SoftwareUpdate/Platform/PayloadManager.h"

namespace Zel {
namespace Su {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Platform/PayloadManager";
constexpr const char* kInternalProblem = "internal problem";

struct Collector {
    std::string data;
    size_t limit = 0;
};

size_t collect(char* data, size_t size, size_t nmemb, void* target) {
    auto* collector = static_cast<Collector*>(target);
    size_t n = size * nmemb;
    // Never more than asked for: a range is what we read.
    if (collector->data.size() + n > collector->limit) {
        return 0;
    }
    collector->data.append(data, n);
    return n;
}

// One step of reading the token; logs and records "internal problem" on a fault.
struct LocalReader {
    bool& failure;
    std::string& reason;
    std::string& time;

    bool fail(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        std::string detail = StringUtil::Vform(format, args);
        va_end(args);
        ZEL_LOG(ServiceSu, CategoryFlow, SeverityError, "%s", detail.c_str());
        PayloadManager::SetFailure(failure, reason, time, "%s", kInternalProblem);
        return false;
    }
    template <typename T>
    bool set(CURL* handle, CURLoption option, T value, const char* message) {
        CURLcode code = curl_easy_setopt(handle, option, value);
        return code == CURLE_OK || fail(message, static_cast<int>(code), curl_easy_strerror(code));
    }
    // Reads `bytes` bytes of the range into `out`.
    bool read(CURL* handle, const std::string& range, size_t bytes, std::string& out,
              const char* rangeMessage, const char* dataMessage, const char* functionMessage,
              const char* performMessage, const char* sizeMessage) {
        Collector collector;
        collector.limit = bytes;
        if (!set(handle, CURLOPT_RANGE, range.c_str(), rangeMessage) ||
            !set(handle, CURLOPT_WRITEDATA, &collector, dataMessage) ||
            !set(handle, CURLOPT_WRITEFUNCTION, collect, functionMessage)) {
            return false;
        }
        CURLcode code = curl_easy_perform(handle);
        if (code != CURLE_OK) {
            return fail(performMessage, static_cast<int>(code), curl_easy_strerror(code));
        }
        out = std::move(collector.data);
        return out.size() == bytes || fail(sizeMessage, static_cast<int>(out.size()));
    }
};
}  // namespace

void PayloadManager::ReadMetadata(const std::string& location, std::string& metadata, bool& failure,
                                  std::string& failReason, std::string& failTime) {
    ZEL_LOG(ServiceSu, CategoryFlow, SeverityInfo, "Reading metadata from  %s", location.c_str());
    LocalReader reader{failure, failReason, failTime};
    std::unique_ptr<CURL, Http::CurlDeleter> handle(curl_easy_init());
    if (!handle) {
        reader.fail("metadata local curl_easy_init() failed");
        return;
    }
    std::string url = "file:///" + location;
    std::string length;
    if (!reader.set(handle.get(), CURLOPT_NOSIGNAL, 1L,
                    "metadata local curl_easy_setopt(CURLOPT_NOSIGNAL) returned (%d) %s") ||
        !reader.set(handle.get(), CURLOPT_URL, url.c_str(),
                    "metadata local curl_easy_setopt(CURLOPT_URL) returned (%d) %s") ||
        !reader.set(handle.get(), CURLOPT_PROTOCOLS_STR, "file",
                    "metadata local curl_easy_setopt(CURLOPT_PROTOCOLS) returned (%d) %s") ||
        !reader.read(handle.get(), "0-3", 4, length,
                     "metadata offset curl_easy_setopt(CURLOPT_RANGE) returned (%d) %s",
                     "metadata offset curl_easy_setopt(CURLOPT_WRITEDATA) returned (%d) %s",
                     "metadata offset curl_easy_setopt(CURLOPT_WRITEFUNCTION) returned (%d) %s",
                     "metadata offset curl_easy_perform() returned (%d) %s",
                     "metadata offset cannot read buffer, status %d")) {
        return;
    }
    uint32_t bigEndian = 0;
    std::memcpy(&bigEndian, length.data(), 4);
    uint32_t n = ntohl(bigEndian);
    if (n == 0 || n > kMaxTokenBytes) {
        reader.fail("metadata local cannot allocate memory");
        return;
    }
    std::string range = "4-" + std::to_string(static_cast<uint64_t>(n) + 3);
    std::string token;
    if (!reader.read(handle.get(), range, n, token,
                     "metadata local curl_easy_setopt(CURLOPT_RANGE) for metadata returned (%d) %s",
                     "metadata local curl_easy_setopt(CURLOPT_WRITEDATA) returned (%d) %s",
                     "metadata local curl_easy_setopt(CURLOPT_WRITEFUNCTION) returned (%d) %s",
                     "metadata local curl_easy_perform() returned (%d) %s",
                     "metadata local cannot read buffer, status %d")) {
        return;
    }
    metadata = token;
}

PayloadManager::PayloadManager(const std::string& metadata, const std::string& localLocation,
                               const std::string& stagingFile, const ProductKit& kit)
    : localLocation_(localLocation), dstFile_(stagingFile) {
    bool local = !localLocation.empty();
    if (!MetadataToken::Verify(metadata, local, kit, metadata_, failure_)) {
        return;
    }
    stagingUrl_ = "file:///" + dstFile_;
    if (local) {
        sourceUrl_ = "file:///" + localLocation_;
        srcOffset_ = 4 + static_cast<uint32_t>(metadata.size());
    } else {
        sourceUrl_ = metadata_.url;
    }
}

PayloadManager::~PayloadManager() {
    unlockStagingFile();
}

void PayloadManager::fail(const char* reason) {
    ZEL_LOG(ServiceSu, CategoryFlow, SeverityError, "%s", reason);
    SetFailure(failure_.failure, failure_.reason, failure_.time, "%s", reason);
}

uint32_t PayloadManager::getPercentDownloaded() const {
    if (metadata_.totalBlocks == 0) {
        return 0;
    }
    return static_cast<uint32_t>(100u * currentBlock_ / metadata_.totalBlocks);
}

void PayloadManager::logStateDebug() const {
    if (!Logger::Instance().test(ServiceSu, CategoryFlow, SeverityDebug)) {
        return;
    }
    auto line = [](const char* name, const std::string& value) {
        ZEL_LOG(ServiceSu, CategoryFlow, SeverityDebug, "metadata->%-22s: %s", name, value.c_str());
    };
    auto flag = [](bool value) { return std::string(value ? "true" : "false"); };
    const UpdateMetadata& m = metadata_;
    line("local", flag(m.local));
    line("mandatory", flag(m.mandatory));
    line("autoAnswer", flag(m.autoAnswer));
    line("blockSize", std::to_string(m.blockSize));
    line("totalSize", std::to_string(m.totalSize));
    line("totalBlocks", std::to_string(m.totalBlocks));
    line("version", m.version);
    line("displayText", m.displayText);
    line("opid", m.opid);
    line("url", m.url);
    line("dstFile", dstFile_);
    line("hash", m.hash);
    line("swVersions", m.swVersions);
    line("currentBlock", std::to_string(currentBlock_));
    line("resumedBlocks", std::to_string(resumedBlocks_));
    line("srcOffset", std::to_string(srcOffset_));
    line("dstBufMaxLen", std::to_string(dstBufMaxLen_));
    line("dstBufCurLen", std::to_string(dstBufCurLen_));
    line("dstTagCurLen", std::to_string(dstTagCurLen_));
    line("failure", flag(failure_.failure));
    line("failReason", failure_.reason);
    line("failTime", failure_.time);
}

}  // namespace Su
}  // namespace Zel
