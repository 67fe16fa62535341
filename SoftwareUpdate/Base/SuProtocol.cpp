// SoftwareUpdateManager's side of the "su" service: the report that ends
// every network update.
#include <json/value.h>

#include "Core/Base/CoreManager.h"
#include "Core/Base/CoreMutex.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/Http.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"
#include "SoftwareUpdate/Base/SoftwareUpdateManager.h"

namespace Zel {
namespace Su {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SoftwareUpdateManager";
constexpr const char* kService = "DownloadComplete";
constexpr const char* kPath = "su/download/complete";
}  // namespace

bool SoftwareUpdateManager::SendTerminalStatus(bool network, bool failure,
                                               const std::string& details, const std::string& date,
                                               const std::string& metadata) {
    if (!network) {
        return true;
    }
    Json::Value body(Json::objectValue);
    body["suStatus"] = !failure;
    body["suDetails"] = details;
    body["suDate"] = date;
    body["suMetadata"] = metadata;
    Http::Request request;
    unsigned attempts;
    unsigned fixed;
    unsigned varied;
    {
        LockMutex lock(CoreMutex());
        if (persistent_ == nullptr) {
            return true;
        }
        CoreManager& core = CoreManager::Instance();
        core.setRequestHttpVerb(request, Http::Verb::Post);
        core.setRequestIdentity(request);
        core.setRequestUrl(request, "su", kPath);
        CoreManager::setRequestHeaderDate(request);
        core.setRequestHeaderAuthorizedGid(request);
        CoreManager::setRequestHeaderAcceptJson(request);
        CoreManager::setRequestHeaderContentTypeJson(request);
        request.connectTimeoutMs = persistent_->getSuConnectTimeoutMs();
        request.timeoutMs = persistent_->getSuMessageTimeoutMs();
        request.abort = core.getAbortFlag();
        request.body = JsonUtil::Compact(body);
        attempts = persistent_->getSuMaxRetryCount() > 0 ? persistent_->getSuMaxRetryCount() : 1;
        fixed = persistent_->getSuRetryDelayFixedMs();
        varied = persistent_->getSuRetryDelayVariedMs();
    }
    for (unsigned attempt = 1; attempt <= attempts; ++attempt) {
        if (attempt > 1) {
            timespec now = TimeManager::Instance().now();
            timespec deadline{};
            TimeManager::Instance().updateTimestamp(now, deadline, fixed, varied);
            long long wait = (static_cast<long long>(deadline.tv_sec) - now.tv_sec) * 1000 +
                             (deadline.tv_nsec - now.tv_nsec) / 1000000;
            ZEL_LOG(ServiceSu, CategoryWebservice, SeverityInfo,
                    "%s delaying  (%u of %u) for %i.%03i seconds", kService, attempt, attempts,
                    static_cast<int>(wait / 1000), static_cast<int>(wait % 1000));
            if (!waitUntil(deadline)) {
                return true;
            }
        }
        ZEL_LOG(ServiceSu, CategoryWebservice, SeverityInfo, "%s initiated (%u of %u)", kService,
                attempt, attempts);
        Http::Response response;
        long status = Http::Perform(request, response) ? response.status : 0;
        ZEL_LOG(ServiceSu, CategoryWebservice, SeverityInfo, "%s processed (%u of %u) [%u]",
                kService, attempt, attempts, static_cast<unsigned>(status));
        if (status >= 200 && status < 300) {
            return true;
        }
        if (status == 422) {
            return false;
        }
        if (status == 428) {
            LockMutex lock(CoreMutex());
            CoreManager::Instance().setNotSynchronized();
            return false;
        }
    }
    // Nobody said no: a verified update stands even when the cloud was not told.
    return true;
}

}  // namespace Su
}  // namespace Zel
