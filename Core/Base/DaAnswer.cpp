#include "Core/Base/DaAnswer.h"

#include <json/value.h>

#include "Core/Base/PersistentValues.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Base/DaAnswer";

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
// Each key of `table` present with a readable value goes through its setter;
// anything else keeps the current value.
template <typename T, typename Table>
void applyKeys(const Json::Value& answer, const Table& table, bool (*read)(const Json::Value&, T&),
               PersistentValues& persistent) {
    for (const auto& key : table) {
        T value{};
        if (read(JsonUtil::Member(answer, key.first), value)) {
            (persistent.*key.second)(value);
        }
    }
}
}  // namespace

bool DaAnswer::Apply(MicroService service, const std::string& body, PersistentValues& persistent,
                     unsigned& badSynchs, std::vector<Event>& events) {
    Json::Value answer;
    if (!JsonUtil::Parse(body, answer) || !answer.isObject()) {
        ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError, "%s answer is not a JSON object",
                MicroServiceToString(service));
        return false;
    }
    switch (service) {
        case SynchronizeCoreState:
            applySynchronize(answer, persistent, badSynchs, events);
            break;
        case CheckForNotification: {
            // The notification call can only take the flag away.
            bool synchronized = true;
            if (JsonUtil::GetBool(JsonUtil::Member(answer, "daStateSynchronized"), synchronized) &&
                !synchronized) {
                persistent.setSynchronized(false);
            }
            break;
        }
        case GetDeviceIdentity: {
            // Without a token the call has failed, whatever its status: calling
            // again at once would hammer a confused server.
            std::string token;
            if (!JsonUtil::GetString(JsonUtil::Member(answer, "daGidToken"), token) ||
                token.empty() || !PersistentValues::IsUsableToken(token)) {
                ZEL_LOG(ServiceCore, CategoryWebservice, SeverityError,
                        "%s answer without a usable \"daGidToken\"", MicroServiceToString(service));
                return false;
            }
            persistent.setGidToken(token);
            break;
        }
    }
    return true;
}

void DaAnswer::applySynchronize(const Json::Value& answer, PersistentValues& persistent,
                                unsigned& badSynchs, std::vector<Event>& events) {
    bool synchronized = false;
    // A missing flag counts as "not synchronised" too, so that a server that
    // never says so cannot keep us calling without a pause.
    JsonUtil::GetBool(JsonUtil::Member(answer, "daSynchronized"), synchronized);
    persistent.setSynchronized(synchronized);
    badSynchs = synchronized ? 0 : badSynchs + 1;

    applyKeys<uint32_t>(answer, kUnsignedKeys, JsonUtil::GetUInt32, persistent);
    applyKeys<std::string>(answer, kStringKeys, JsonUtil::GetString, persistent);
    applyKeys<bool>(answer, kBoolKeys, JsonUtil::GetBool, persistent);
    std::string consent;
    if (JsonUtil::GetString(JsonUtil::Member(answer, "daConsentState"), consent)) {
        persistent.setDaConsentState(consent == "ConsentRequired" ? ConsentStateRequired
                                                                  : ConsentStateNotRequired);
    }
    const Json::Value& allowed = JsonUtil::Member(answer, "dsAllowedDataItemIds");
    if (allowed.isArray()) {
        std::vector<std::string> ids;
        std::string id;
        for (const Json::Value& item : allowed) {
            if (JsonUtil::GetString(item, id)) {
                ids.push_back(id);
            }
        }
        persistent.setDsAllowedDataItemIds(ids);
    }
    readEvents(JsonUtil::Member(answer, "daEvents"), events);
}

void DaAnswer::readEvents(const Json::Value& list, std::vector<Event>& events) {
    if (!list.isArray()) {
        return;
    }
    for (const Json::Value& item : list) {
        Event event;
        if (!JsonUtil::GetString(JsonUtil::Member(item, "event"), event.name)) {
            continue;
        }
        if (events.size() == kMaxEvents) {
            ZEL_LOG(ServiceCore, CategoryWebservice, SeverityWarning,
                    "More than %zu events in one answer, the rest dropped", kMaxEvents);
            return;
        }
        uint32_t id = 0;
        JsonUtil::GetUInt32(JsonUtil::Member(item, "id"), id);
        event.id = id;
        const Json::Value& parameters = JsonUtil::Member(item, "parameters");
        if (!JsonUtil::GetString(parameters, event.parameters) && !parameters.isNull()) {
            event.parameters = JsonUtil::Compact(parameters);
        }
        events.push_back(std::move(event));
    }
}

}  // namespace Core
}  // namespace Zel
