// CoreManager's side of the "da" service: building each call's request and
// applying its answer.
#include "Core/Base/CoreConfig.h"
#include "Core/Base/CoreManager.h"
#include "Core/Base/EventManager.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Project/DeviceValues.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Base/CoreManager";

using UnsignedSetter = bool (PersistentValues::*)(uint32_t);
using StringSetter = bool (PersistentValues::*)(const std::string&);
using BoolSetter = bool (PersistentValues::*)(bool);

// Answer keys of SynchronizeCoreState and the setters they go through. The
// speed-test URLs arrive spelled "URL" and are kept as "Url".
const std::pair<const char*, UnsignedSetter> kUnsignedKeys[] = {
    {"daOpidSeqNum", &PersistentValues::setOpidSeqNum},
    {"daGidSeqNum", &PersistentValues::setGidSeqNum},
    {"daConnectTimeoutMs", &PersistentValues::setDaConnectTimeoutMs},
    {"daMessageTimeoutMs", &PersistentValues::setDaMessageTimeoutMs},
    {"daPollDelayFixedMs", &PersistentValues::setDaPollDelayFixedMs},
    {"daPollDelayVariedMs", &PersistentValues::setDaPollDelayVariedMs},
    {"daRetryDelayFixedMs", &PersistentValues::setDaRetryDelayFixedMs},
    {"daRetryDelayVariedMs", &PersistentValues::setDaRetryDelayVariedMs},
    {"daStartupDelayFixedMs", &PersistentValues::setDaStartupDelayFixedMs},
    {"daStartupDelayVariedMs", &PersistentValues::setDaStartupDelayVariedMs},
    {"dsConnectTimeoutMs", &PersistentValues::setDsConnectTimeoutMs},
    {"dsMessageTimeoutMs", &PersistentValues::setDsMessageTimeoutMs},
    {"dsRetryDelayFixedMs", &PersistentValues::setDsRetryDelayFixedMs},
    {"dsRetryDelayVariedMs", &PersistentValues::setDsRetryDelayVariedMs},
    {"dsStartupDelayFixedMs", &PersistentValues::setDsStartupDelayFixedMs},
    {"dsStartupDelayVariedMs", &PersistentValues::setDsStartupDelayVariedMs},
    {"dsAggressiveQueuePercentage", &PersistentValues::setDsAggressiveQueuePercentage},
    {"dsStandardDelayFixedMs", &PersistentValues::setDsStandardDelayFixedMs},
    {"dsStandardDelayVariedMs", &PersistentValues::setDsStandardDelayVariedMs},
    {"dsAggressiveDelayFixedMs", &PersistentValues::setDsAggressiveDelayFixedMs},
    {"dsAggressiveDelayVariedMs", &PersistentValues::setDsAggressiveDelayVariedMs},
    {"svConnectTimeoutMs", &PersistentValues::setSvConnectTimeoutMs},
    {"svMessageTimeoutMs", &PersistentValues::setSvMessageTimeoutMs},
    {"svRetryDelayFixedMs", &PersistentValues::setSvRetryDelayFixedMs},
    {"svRetryDelayVariedMs", &PersistentValues::setSvRetryDelayVariedMs},
    {"svActiveTimeoutMs", &PersistentValues::setSvActiveTimeoutMs},
    {"svPausedTimeoutMs", &PersistentValues::setSvPausedTimeoutMs},
    {"svNetworkDiagTimeoutMs", &PersistentValues::setSvNetworkDiagTimeoutMs},
    {"svSpeedTestDownloadSize", &PersistentValues::setSvSpeedTestDownloadSize},
    {"svSpeedTestDownloadTimeMs", &PersistentValues::setSvSpeedTestDownloadTimeMs},
    {"svSpeedTestUploadSize", &PersistentValues::setSvSpeedTestUploadSize},
    {"svSpeedTestUploadTimeMs", &PersistentValues::setSvSpeedTestUploadTimeMs},
    {"suConnectTimeoutMs", &PersistentValues::setSuConnectTimeoutMs},
    {"suMessageTimeoutMs", &PersistentValues::setSuMessageTimeoutMs},
    {"suMaxRetryCount", &PersistentValues::setSuMaxRetryCount},
    {"suRetryDelayFixedMs", &PersistentValues::setSuRetryDelayFixedMs},
    {"suRetryDelayVariedMs", &PersistentValues::setSuRetryDelayVariedMs},
    {"suStagingConnectTimeoutMs", &PersistentValues::setSuStagingConnectTimeoutMs},
    {"suStagingMessageTimeoutMs", &PersistentValues::setSuStagingMessageTimeoutMs},
    {"suStagingMaxRetryCount", &PersistentValues::setSuStagingMaxRetryCount},
    {"suStagingRetryDelayFixedMs", &PersistentValues::setSuStagingRetryDelayFixedMs},
    {"suStagingRetryDelayVariedMs", &PersistentValues::setSuStagingRetryDelayVariedMs},
};

const std::pair<const char*, StringSetter> kStringKeys[] = {
    {"svLbrAwsDomain", &PersistentValues::setSvLbrAwsDomain},
    {"svMrsUrl", &PersistentValues::setSvMrsUrl},
    {"svPingTestHostname", &PersistentValues::setSvPingTestHostname},
    {"svSpeedTestDownloadURL", &PersistentValues::setSvSpeedTestDownloadUrl},
    {"svSpeedTestUploadURL", &PersistentValues::setSvSpeedTestUploadUrl},
    {"daConsentUrl", &PersistentValues::setDaConsentUrl},
};

const std::pair<const char*, BoolSetter> kBoolKeys[] = {
    {"daSupportViewEnabled", &PersistentValues::setDaSupportViewEnabled},
    {"suCheckForSoftwareUpdate", &PersistentValues::setSuCheckForSoftwareUpdate},
};
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
    time_t now = time(nullptr);
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
    VolatileValues& values = *volatile_;
    values.busy = false;
    values.evaluate = true;
    long status = performed ? response.status : 0;
    if (status > 0 && status < 300) {
        getResponseHeaders(service, response);
        // An answer we cannot read is treated like a failed exchange, so a
        // confused server is not called again at once.
        if (!getResponseBody(service, response)) {
            values.retry = true;
        }
    } else {
        values.retry = true;
        if (status == 422) {
            persistent_->setGidToken("");
            persistent_->setOpidSeqNum(0);
            persistent_->setGidSeqNum(0);
            persistent_->setSynchronized(false);
        } else if (status == 428) {
            persistent_->setSynchronized(false);
        }
    }
    // A setting changed while the call was in flight: that call carried the
    // old values, so the cloud has yet to see the new ones.
    if (values.pending) {
        values.pending = false;
        persistent_->setSynchronized(false);
    }
    evaluateStateChanges();
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityInfo, "%s processed (%u)",
            MicroServiceToString(service), static_cast<unsigned>(status));
}

void CoreManager::getResponseHeaders(MicroService, const Http::Response& response) {
    ZEL_LOG(ServiceCore, CategoryWebservice, SeverityTrace, "response headers: %zu",
            response.headers.size());
}

bool CoreManager::getResponseBody(MicroService service, const Http::Response& response) {
    Json::Value answer;
    if (!JsonUtil::Parse(response.body, answer) || !answer.isObject()) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "%s answer is not a JSON object",
                MicroServiceToString(service));
        return false;
    }
    switch (service) {
        case SynchronizeCoreState:
            applySynchronizeAnswer(answer);
            break;
        case CheckForNotification: {
            const Json::Value& synchronized = answer["daStateSynchronized"];
            // The notification call can only take the flag away.
            if (synchronized.isBool() && !synchronized.asBool()) {
                persistent_->setSynchronized(false);
            }
            break;
        }
        case GetDeviceIdentity: {
            const Json::Value& token = answer["daGidToken"];
            if (token.isString()) {
                persistent_->setGidToken(token.asString());
            }
            break;
        }
    }
    return true;
}

void CoreManager::applySynchronizeAnswer(const Json::Value& answer) {
    PersistentValues& persistent = *persistent_;
    VolatileValues& values = *volatile_;
    const Json::Value& synchronized = answer["daSynchronized"];
    if (synchronized.isBool() && synchronized.asBool()) {
        persistent.setSynchronized(true);
        values.badSynchs = 0;
    } else {
        // A missing flag counts as "not synchronised" too, so that a server
        // that never says so cannot keep us calling without a pause.
        persistent.setSynchronized(false);
        ++values.badSynchs;
    }
    for (const auto& key : kUnsignedKeys) {
        const Json::Value& value = answer[key.first];
        if (value.isUInt()) {
            (persistent.*key.second)(value.asUInt());
        }
    }
    for (const auto& key : kStringKeys) {
        const Json::Value& value = answer[key.first];
        if (value.isString()) {
            (persistent.*key.second)(value.asString());
        }
    }
    for (const auto& key : kBoolKeys) {
        const Json::Value& value = answer[key.first];
        if (value.isBool()) {
            (persistent.*key.second)(value.asBool());
        }
    }
    const Json::Value& consent = answer["daConsentState"];
    if (consent.isString()) {
        persistent.setDaConsentState(consent.asString() == "ConsentRequired"
                                         ? ConsentStateRequired
                                         : ConsentStateNotRequired);
    }
    const Json::Value& allowed = answer["dsAllowedDataItemIds"];
    if (allowed.isArray()) {
        std::vector<std::string> ids;
        for (const Json::Value& id : allowed) {
            if (id.isString()) {
                ids.push_back(id.asString());
            }
        }
        persistent.setDsAllowedDataItemIds(ids);
    }
    const Json::Value& events = answer["daEvents"];
    if (events.isArray()) {
        for (const Json::Value& event : events) {
            if (!event.isObject() || !event["event"].isString()) {
                continue;
            }
            const Json::Value& parameters = event["parameters"];
            std::string text = parameters.isString() ? parameters.asString()
                               : parameters.isNull() ? std::string()
                                                     : JsonUtil::Compact(parameters);
            EventManager::Instance().queueEvent(
                event["event"].asString(), event["id"].isUInt() ? event["id"].asUInt() : 0, text);
        }
    }
}

}  // namespace Core
}  // namespace Zel
