// CoreManager's side of the "da" service: building each call's request and
// applying its answer.
#include "Core/Base/CoreConfig.h"
#include "Core/Base/CoreManager.h"
#include "Core/Base/DaAnswer.h"
#include "Core/Base/EventManager.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Base/StateDecisions.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"
#include "Core/Project/DeviceValues.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Base/CoreManager";

}  // namespace

void CoreManager::setRequestHttpVerb(Http::Request& request, Http::Verb verb) const {
    request.verb = verb;
}

void CoreManager::setRequestIdentity(Http::Request& request) const {
    request.identity = identity_.get();
}

void CoreManager::setRequestUrl(Http::Request& request, const std::string& service,
                                const std::string& path) const {
    request.url = "https://" + persistent_->getCertOpid() + "-" + service + "." +
                  persistent_->getCertInstance() + "/api/v1/" + path;
}

void CoreManager::setRequestHeaderDate(Http::Request& request) {
    time_t now = TimeManager::Instance().now().tv_sec;
    tm utc{};
    gmtime_r(&now, &utc);
    char text[64];
    strftime(text, sizeof text, "Date: %FT%TZ", &utc);
    request.headers.push_back(text);
}

void CoreManager::setRequestHeaderAcceptJson(Http::Request& request) {
    request.headers.push_back("Accept: application/json");
}

void CoreManager::setRequestHeaderContentTypeJson(Http::Request& request) {
    request.headers.push_back("Content-Type: application/json; charset=UTF-8");
}

void CoreManager::setRequestHeaderAuthorizedGid(Http::Request& request) const {
    request.headers.push_back("Authorization: " + persistent_->getGidToken());
}

void CoreManager::setRequestBody(MicroService service, Http::Request& request) const {
    const PersistentValues& persistent = *persistent_;
    Json::Value body(Json::objectValue);
    switch (service) {
        case CheckForNotification:
            body["daOpidSeqNum"] = persistent.getOpidSeqNum();
            body["daGidSeqNum"] = persistent.getGidSeqNum();
            break;
        case GetDeviceIdentity:
            body["daId"] = device_->getId();
            body["daTestMode"] = persistent.getTestMode();
            break;
        case SynchronizeCoreState:
            body["daTestMode"] = persistent.getTestMode();
            body["daId"] = device_->getId();
            body["daModel"] = device_->getModel();
            body["daSubModel"] = device_->getSubModel();
            body["oemMsg"] = persistent.getOemMsg();
            body["daBrand"] = device_->getBrand();
            body["daPlatform"] = device_->getPlatform();
            body["daSwVersion"] = device_->getSwVersion();
            body["daVersion"] = persistent.getSdkVersion();
            body["daOpidSeqNum"] = persistent.getOpidSeqNum();
            body["daGidSeqNum"] = persistent.getGidSeqNum();
            body["suCheckForSoftwareUpdate"] = persistent.getSuCheckForSoftwareUpdate();
            break;
    }
    request.body = JsonUtil::Compact(body);
}

void CoreManager::prepMicroService(MicroService service, Http::Request& request) {
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityInfo, "%s initiated",
            MicroServiceToString(service));
    request.headers.clear();
    setRequestHttpVerb(request, Http::Verb::Post);
    setRequestIdentity(request);
    setRequestUrl(request, "da", MicroServicePath(service));
    setRequestHeaderDate(request);
    setRequestHeaderAcceptJson(request);
    setRequestHeaderContentTypeJson(request);
    if (service != GetDeviceIdentity) {
        setRequestHeaderAuthorizedGid(request);
    }
    setRequestBody(service, request);
    request.connectTimeoutMs = persistent_->getDaConnectTimeoutMs();
    request.timeoutMs = persistent_->getDaMessageTimeoutMs();
    request.abort = &abort_;
    evaluateStateChanges();
}

void CoreManager::postMicroService(MicroService service, bool performed,
                                   const Http::Response& response) {
    long status = performed ? response.status : 0;
    StateDecisions::ApplyExchange(
        status,
        [&] {
            getResponseHeaders(service, response);
            return getResponseBody(service, response);
        },
        *volatile_, *persistent_);
    evaluateStateChanges();
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityInfo, "%s processed (%u)",
            MicroServiceToString(service), static_cast<unsigned>(status));
}

void CoreManager::getResponseHeaders(MicroService, const Http::Response& response) {
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityTrace, "response headers: %zu",
            response.headers.size());
}

bool CoreManager::getResponseBody(MicroService service, const Http::Response& response) {
    std::vector<Event> events;
    bool usable =
        DaAnswer::Apply(service, response.body, *persistent_, volatile_->badSynchs, events);
    for (const Event& event : events) {
        EventManager::Instance().queueEvent(event.name, event.id, event.parameters);
    }
    return usable;
}

}  // namespace Core
}  // namespace Zel
