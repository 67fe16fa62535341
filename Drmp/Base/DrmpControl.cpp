// DrmpManager's DrmpControl thread and its side of the "drmp" service: the
// token call, the work call, and the operations the work answer brings.
#include <json/value.h>

#include "Core/Base/CoreManager.h"
#include "Core/Base/CoreMutex.h"
#include "Core/Base/DaTimer.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/Base64Util.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/HmacUtil.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"
#include "Drmp/Base/DrmpManager.h"
#include "Drmp/Project/DrmpCustom.h"

namespace Zel {
namespace Drmp {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/DrmpManager";

bool later(const timespec& a, const timespec& b) {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

long long millisUntil(const timespec& from, const timespec& to) {
    return (static_cast<long long>(to.tv_sec) - from.tv_sec) * 1000 +
           (to.tv_nsec - from.tv_nsec) / 1000000;
}
}  // namespace

void* DrmpManager::DrmpControl(void* self) {
    static_cast<DrmpManager*>(self)->drmpControl();
    return nullptr;
}

void DrmpManager::drmpControl() {
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "DrmpControl started");
    DrmpCustom::DrmpSecureInitialize();
    Http::Request request;
    request.reusable = true;
    Delay delay = Delay::Startup;
    while (waitForTurn(delay)) {
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "DrmpControl running");
        MicroService service;
        {
            LockMutex lock(CoreMutex());
            if (values_->getToken().empty() && !values_->getBackupToken().empty()) {
                ZEL_LOG(ServiceDrmp, CategoryState, SeverityWarning, "Token Recovery Activated");
                values_->setToken(values_->getBackupToken());
            }
            service = values_->getToken().empty() ? Token : Work;
        }
        if (service == Work) {
            ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "DrmpControl making DWS call");
        }
        bool succeeded = runCall(service, request);
        // After a new token the work call follows at once.
        delay = !succeeded ? Delay::Retry : service == Token ? Delay::None : Delay::Poll;
    }
    Http::Cleanup(request);
    DrmpCustom::DrmpSecureFinalize();
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "DrmpControl terminated");
}

// Sleeps until the next call is due; false when the agent stops.
bool DrmpManager::waitForTurn(Delay delay) {
    LockMutex lock(CoreMutex());
    // The calls name the device: nothing before the core has its identity.
    while (!terminating_ && !haveIdentity()) {
        waitingForIdentity_ = true;
        controlSem_->wait(nullptr);
    }
    waitingForIdentity_ = false;
    if (terminating_) {
        return false;
    }
    const DrmpPersistentValues& values = *values_;
    TimeManager& time = TimeManager::Instance();
    timespec now = time.now();
    timespec deadline = now;
    switch (delay) {
        case Delay::Startup:
            ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo,
                    "Using startup delay on drmp startup");
            time.updateTimestamp(now, deadline, values.startupDelayFixedMs,
                                 values.startupDelayVariedMs);
            // A restart keeps to the poll delay of the last work call.
            if (haveLastWork_) {
                timespec poll{};
                time.updateTimestamp(lastWork_, poll, values.pollDelayFixedMs,
                                     values.pollDelayVariedMs);
                if (later(poll, deadline)) {
                    deadline = poll;
                }
            }
            break;
        case Delay::Retry:
            ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "Using retry delay");
            time.updateTimestamp(now, deadline, values.retryDelayFixedMs,
                                 values.retryDelayVariedMs);
            break;
        case Delay::Poll:
            ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "Using poll delay");
            time.updateTimestamp(lastWork_, deadline, values.pollDelayFixedMs,
                                 values.pollDelayVariedMs);
            break;
        case Delay::None:
            break;
    }
    for (;;) {
        if (checkNow_) {
            checkNow_ = false;
            return true;
        }
        now = time.now();
        if (!later(deadline, now)) {
            return true;
        }
        long long wait = millisUntil(now, deadline);
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo,
                "DrmpControl delaying %i.%03i seconds before running %s",
                static_cast<int>(wait / 1000), static_cast<int>(wait % 1000),
                MicroServiceToString(values_->getToken().empty() ? Token : Work));
        controlSem_->wait(&deadline);
        if (terminating_) {
            return false;
        }
    }
}

void DrmpManager::prepMicroService(MicroService service, Http::Request& request) {
    CoreManager& core = CoreManager::Instance();
    request.headers.clear();
    core.setRequestHttpVerb(request, Http::Verb::Post);
    core.setRequestIdentity(request);
    core.setRequestUrl(request, "drmp", std::string("drmp/") + MicroServiceToString(service));
    CoreManager::setRequestHeaderDate(request);
    CoreManager::setRequestHeaderAcceptJson(request);
    CoreManager::setRequestHeaderContentTypeJson(request);
    if (!values_->getToken().empty()) {
        request.headers.push_back("Authorization: " + values_->getToken());
    }
    request.connectTimeoutMs = values_->connectTimeoutMs;
    request.timeoutMs = values_->messageTimeoutMs;
    request.abort = core.getAbortFlag();
}

// Runs without the core mutex: the key comes from the secure core.
std::string DrmpManager::tokenBody() {
    std::string deviceId;
    {
        LockMutex lock(CoreMutex());
        PersistentValues* core = CoreManager::Instance().getCorePersistentPtr();
        deviceId = core != nullptr ? core->getDeviceId() : "";
    }
    Json::Value body(Json::objectValue);
    body["deviceId"] = deviceId;
    int index = -1;
    std::vector<uint8_t> key;
    std::string hmac;
    if (DrmpCustom::GetUlpk(index, key) != 0 ||
        !HmacUtil::GetHmacSha256(std::vector<unsigned char>(key.begin(), key.end()), deviceId,
                                 hmac)) {
        index = -1;
        hmac.clear();
    }
    body["index"] = index;
    body["hmac"] = hmac;
    return JsonUtil::Compact(body);
}

std::string DrmpManager::workBody() {
    std::list<std::string> names;
    DrmpCustom::GetSupportedObjectNames(names);
    Json::Value body(Json::objectValue);
    Json::Value supported(Json::arrayValue);
    for (const std::string& name : names) {
        supported.append(name);
    }
    LockMutex lock(CoreMutex());
    body["seqNum"] = values_->getSeqNum();
    PersistentValues* core = CoreManager::Instance().getCorePersistentPtr();
    body["gid"] = core != nullptr ? core->getGidToken() : "";
    body["supported"] = supported;
    Json::Value& results = body["results"] = Json::Value(Json::arrayValue);
    for (const DrmpPersistentValues::Result& result : values_->getResults()) {
        Json::Value item(Json::objectValue);
        item["name"] = result.name;
        item["operation"] = result.operation;
        item["success"] = result.success;
        results.append(item);
    }
    return JsonUtil::Compact(body);
}

// One call and what its answer changes; false when it failed.
bool DrmpManager::runCall(MicroService service, Http::Request& request) {
    request.body = service == Token ? tokenBody() : workBody();
    timespec started = TimeManager::Instance().now();
    {
        LockMutex lock(CoreMutex());
        if (terminating_) {
            return false;
        }
        prepMicroService(service, request);
    }
    ZEL_LOG(ServiceDrmp, CategoryWebservice, SeverityInfo, "%s initiated",
            MicroServiceToString(service));
    Http::Response response;
    long status = Http::Perform(request, response) ? response.status : 0;
    ZEL_LOG(ServiceDrmp, CategoryWebservice, SeverityInfo, "%s processed (%u)",
            MicroServiceToString(service), static_cast<unsigned>(status));

    std::vector<DrmpOperation> operations;
    LockMutex lock(CoreMutex());
    if (terminating_) {
        return false;
    }
    bool accepted = false;
    if (status >= 200 && status < 300) {
        if (service == Token) {
            accepted = DrmpAnswer::ApplyToken(response.body, *values_);
        } else {
            bool statusChanged = false;
            accepted = DrmpAnswer::ApplyWork(response.body, *values_, operations, statusChanged);
            if (accepted) {
                // Reported now: each result goes to the cloud once.
                values_->clearResults();
                lastWork_ = started;
                haveLastWork_ = true;
                FileUtil::Store(persistentPath_, kTimeBaseName, DaTimer::Format(lastWork_));
                if (statusChanged) {
                    statusPending_ = true;
                    statusSem_->reset();
                }
            }
        }
    } else if (status == 422) {
        // The cloud does not know the token: start over, and with nothing
        // that belonged to it.
        if (values_->getBackupToken() == values_->getToken()) {
            values_->clearBackupToken();
        }
        values_->clearToken();
        values_->clearResults();
        values_->clearStatus();
        statusPending_ = true;
        statusSem_->reset();
    }
    if (!operations.empty()) {
        UnlockMutex unlocked(CoreMutex());
        carryOut(operations);
    }
    if (!values_->isPersisted()) {
        values_->store();
    }
    values_->logStateDebug();
    return accepted;
}

// Runs without the core mutex; each outcome becomes a result for the next call.
void DrmpManager::carryOut(const std::vector<DrmpOperation>& operations) {
    for (const DrmpOperation& operation : operations) {
        bool success = false;
        if (operation.operation == "delete") {
            success = DrmpCustom::DeleteObject(operation.name) == 0;
        } else if (operation.operation == "install") {
            uint32_t type = 0;
            std::string bytes;
            if (!DrmpAnswer::EncryptionTypeFromText(operation.encryptionType, type)) {
                ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityError,
                        "Bad encryption type when installing object %s", operation.name.c_str());
            } else if (!Base64Util::Decode(operation.value, bytes)) {
                ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityError,
                        "Bad base64 decoding when installing object %s", operation.name.c_str());
            } else {
                success =
                    DrmpCustom::InstallObject(operation.name, operation.id,
                                              std::vector<uint8_t>(bytes.begin(), bytes.end()),
                                              operation.unencryptedSize,
                                              static_cast<DrmpCustom::EncryptionType>(type)) == 0;
            }
        } else {
            ZEL_LOG(ServiceDrmp, CategoryFlow, SeverityError, "Unknown operation %s",
                    operation.operation.c_str());
            continue;
        }
        LockMutex lock(CoreMutex());
        if (values_) {
            values_->addResult(operation.name, operation.operation, success);
        }
    }
}

}  // namespace Drmp
}  // namespace Zel
