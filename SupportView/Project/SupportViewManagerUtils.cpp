// The network tests behind the diagnostics command. Each takes the
// diagnostics mutex for its whole run and reads its settings under the core
// mutex at the start, never holding that across a network wait.
#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <new>

#include "Core/Base/CoreManager.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/RandomUtil.h"
#include "SupportView/Base/SupportViewManager.h"
#include "SupportView/Platform/Network.h"
#include "SupportView/Platform/System.h"
#include "SupportView/Platform/Time.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Project/SupportViewManagerUtils";

// More than a television should ever move for a speed test.
constexpr unsigned kMaxTestBytes = 64u * 1024 * 1024;

struct AddrInfoDeleter {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

timespec monotonicNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

// The first IPv4 address of `host`, dotted.
bool resolveIPv4(const std::string& host, std::string& address) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (host.empty() || getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
        return false;
    }
    std::unique_ptr<addrinfo, AddrInfoDeleter> list(found);
    for (addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET && entry->ai_addr != nullptr) {
            const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ai_addr);
            address = Network::convertToIPv4Address(in->sin_addr.s_addr);
            return true;
        }
    }
    return false;
}

bool ping(const std::string& address) {
    int status = 0;
    return System::SystemCall("/bin/ping -c 2 -W 1 " + address + " > /dev/null", status) &&
           status == 0;
}

void logStep(const char* step, double left) {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "%s. t=%d", step, static_cast<int>(left));
}

// Megabits per second of payload moved.
double megabitsPerSecond(size_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) * 8.0 / seconds / 1e6 : 0;
}
}  // namespace

void SupportViewManager::runNetworkDiagnosticsTest(bool& nat, bool& dns, bool& gateway,
                                                   bool& internet) {
    std::lock_guard<std::mutex> test(networkTestMutex_);
    nat = true;  // a television sits behind a router
    dns = gateway = internet = false;
    std::string host;
    unsigned budgetMs = 0;
    {
        LockMutex lock(CoreMutex());
        if (!agentRunning() || persistent_ == nullptr) {
            return;
        }
        host = persistent_->getSvPingTestHostname();
        budgetMs = persistent_->getSvNetworkDiagTimeoutMs();
    }
    double budget = budgetMs / 1000.0;
    timespec start = monotonicNow();

    std::string address;
    double left = Time::CalculateRemainingTime(budget, start);
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "%s %s. t=%d", "DNS Lookup", host.c_str(),
            static_cast<int>(left));
    dns = left > 0 && resolveIPv4(host, address);
    if (!dns) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "DNS Lookup Test Failed.");
        return;
    }

    left = Time::CalculateRemainingTime(budget, start);
    logStep("Gateway Ping", left);
    std::string router;
    gateway = left >= 1 && Network::GetDefaultGateway(router) && ping(router);
    if (!gateway) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Gateway Ping Test Failed.");
    }

    left = Time::CalculateRemainingTime(budget, start);
    logStep("Internet Ping", left);
    internet = left > 0 && ping(address);
    if (!internet) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Internet Ping Test Failed.");
    }
}

// The portable build has no radio and no latency probe; device builds fill these.
void SupportViewManager::runLatencyTest(int& latencyMs) {
    std::lock_guard<std::mutex> test(networkTestMutex_);
    latencyMs = 0;
}

void SupportViewManager::runWirelessTest(int& signalDbm, int& quality, int& speedMbps) {
    std::lock_guard<std::mutex> test(networkTestMutex_);
    signalDbm = quality = speedMbps = 0;
}

void SupportViewManager::runSpeedTest(double& up, double& down) {
    std::lock_guard<std::mutex> test(networkTestMutex_);
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Starting Speed Test.");
    if (!speedTransfer(false, down)) {
        down = -1;
    }
    if (!speedTransfer(true, up)) {
        up = -1;
    }
}

bool SupportViewManager::runDownload(double& mbps) {
    std::lock_guard<std::mutex> test(networkTestMutex_);
    return speedTransfer(false, mbps);
}

bool SupportViewManager::runUpload(double& mbps) {
    std::lock_guard<std::mutex> test(networkTestMutex_);
    return speedTransfer(true, mbps);
}

bool SupportViewManager::speedTransfer(bool upload, double& mbps) {
    const char* failure =
        upload ? "Error with Upload Speed Test." : "Error with Download Speed Test.";
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo,
            upload ? "Running the upload speed test." : "Running the download speed test.");
    mbps = 0;
    Http::Request request;
    unsigned size = 0;
    unsigned timeMs = 0;
    {
        LockMutex lock(CoreMutex());
        if (!agentRunning() || persistent_ == nullptr) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "%s", failure);
            return false;
        }
        request.url = upload ? persistent_->getSvSpeedTestUploadUrl()
                             : persistent_->getSvSpeedTestDownloadUrl();
        size = upload ? persistent_->getSvSpeedTestUploadSize()
                      : persistent_->getSvSpeedTestDownloadSize();
        timeMs = upload ? persistent_->getSvSpeedTestUploadTimeMs()
                        : persistent_->getSvSpeedTestDownloadTimeMs();
        CoreManager& core = CoreManager::Instance();
        core.setRequestIdentity(request);
        CoreManager::setRequestHeaderDate(request);
        CoreManager::setRequestHeaderContentTypeJson(request);
        // terminateEnd waits for this exchange: the identity must outlive it.
        std::lock_guard<std::mutex> count(speedTransferMutex_);
        ++speedTransfers_;
    }
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "URL = %s, size = %d, time = %d.",
            request.url.c_str(), static_cast<int>(size), static_cast<int>(timeMs));
    bool passed = false;
    if (!request.url.empty() && size > 0 && timeMs > 0) {
        passed = performSpeedTransfer(request, upload, size, timeMs, mbps);
    }
    {
        std::lock_guard<std::mutex> lock(speedTransferMutex_);
        --speedTransfers_;
        speedTransferDone_.notify_all();
    }
    if (!passed) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "%s", failure);
    }
    return passed;
}

bool SupportViewManager::performSpeedTransfer(Http::Request& request, bool upload, unsigned size,
                                              unsigned timeMs, double& mbps) {
    if (size > kMaxTestBytes) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error - Not Enough Memory For Test.");
        return false;
    }
    request.connectTimeoutMs = timeMs;
    request.timeoutMs = timeMs;
    request.abort = &abortCalls_;
    if (upload) {
        request.verb = Http::Verb::Post;
        try {
            request.body.resize(size);
        } catch (const std::bad_alloc&) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error - Not Enough Memory For Test.");
            return false;
        }
        if (!RandomUtil::GetBytes(&request.body[0], size)) {
            return false;
        }
    } else {
        request.verb = Http::Verb::Get;
        // The configured size is what the test moves; a bigger answer fails it.
        request.maxBodyBytes = size;
    }
    Http::Response response;
    auto started = std::chrono::steady_clock::now();
    bool performed = Http::Perform(request, response);
    std::chrono::duration<double> taken = std::chrono::steady_clock::now() - started;
    Http::Cleanup(request);
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Response Returned Status Code: %d",
            static_cast<int>(response.status));
    if (!performed || response.status < 200 || response.status > 299) {
        return false;
    }
    mbps = megabitsPerSecond(upload ? size : response.body.size(), taken.count());
    return true;
}

}  // namespace Sv
}  // namespace Zel
