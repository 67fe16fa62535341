#include "Core/Base/PersistentValues.h"

#include <json/value.h>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/X509Util.h"
#include "Core/Project/DeviceValues.h"
#include "Core/Project/ProductIdentity.h"

namespace {
constexpr const char* kLogSource = "Base/PersistentValues";
constexpr const char* kSdkVersion = "4.8.0-255-g4399f3ce";
}  // namespace

namespace Zel {
namespace Core {

const char* ConsentStateToString(uint32_t state) {
    switch (state) {
        case ConsentStateNotAvailable:
            return "NotAvailable";
        case ConsentStateNotRequired:
            return "NotRequired";
        case ConsentStateRequired:
            return "Required";
        case ConsentStateStarted:
            return "Started";
        case ConsentStateCompleted:
            return "Completed";
        case ConsentStateUnsupported:
            return "Unsupported";
        default:
            return "Unknown";
    }
}

// One entry per persisted member, in file order; marshal, unmarshal and the
// debug dump all walk this table so that they cannot drift apart.
struct PersistentValues::Field {
    enum Kind { Text, Flag, Number, Consent, TextList };

    Field(const char* k, std::string PersistentValues::*m) : key(k), kind(Text), text(m) {}
    Field(const char* k, bool PersistentValues::*m) : key(k), kind(Flag), flag(m) {}
    Field(const char* k, uint32_t PersistentValues::*m) : key(k), kind(Number), number(m) {}
    Field(const char* k, ConsentState PersistentValues::*m) : key(k), kind(Consent), consent(m) {}
    Field(const char* k, std::vector<std::string> PersistentValues::*m)
        : key(k), kind(TextList), list(m) {}

    const char* key;
    Kind kind;
    std::string PersistentValues::*text = nullptr;
    bool PersistentValues::*flag = nullptr;
    uint32_t PersistentValues::*number = nullptr;
    ConsentState PersistentValues::*consent = nullptr;
    std::vector<std::string> PersistentValues::*list = nullptr;
};

// Never destroyed: StateControl may still store the values while the host exits.
const std::vector<PersistentValues::Field>& PersistentValues::Fields() {
    static const std::vector<Field>* fields = new std::vector<Field>{
        Field("gidToken", &PersistentValues::gidToken_),
        Field("synchronized", &PersistentValues::synchronized_),
        Field("testMode", &PersistentValues::testMode_),
        Field("sdkVersion", &PersistentValues::sdkVersion_),
        Field("certOpid", &PersistentValues::certOpid_),
        Field("certInstance", &PersistentValues::certInstance_),
        Field("deviceId", &PersistentValues::deviceId_),
        Field("deviceModel", &PersistentValues::deviceModel_),
        Field("deviceSubModel", &PersistentValues::deviceSubModel_),
        Field("oemMsg", &PersistentValues::oemMsg_),
        Field("devicePlatform", &PersistentValues::devicePlatform_),
        Field("deviceBrand", &PersistentValues::deviceBrand_),
        Field("deviceEsn", &PersistentValues::deviceEsn_),
        Field("deviceMac", &PersistentValues::deviceMac_),
        Field("deviceSwVersion", &PersistentValues::deviceSwVersion_),
        Field("opidSeqNum", &PersistentValues::opidSeqNum_),
        Field("gidSeqNum", &PersistentValues::gidSeqNum_),
        Field("daSupportViewEnabled", &PersistentValues::daSupportViewEnabled_),
        Field("dsAggressiveQueuePercentage", &PersistentValues::dsAggressiveQueuePercentage_),
        Field("dsStandardDelayFixedMs", &PersistentValues::dsStandardDelayFixedMs_),
        Field("dsStandardDelayVariedMs", &PersistentValues::dsStandardDelayVariedMs_),
        Field("dsAggressiveDelayFixedMs", &PersistentValues::dsAggressiveDelayFixedMs_),
        Field("dsAggressiveDelayVariedMs", &PersistentValues::dsAggressiveDelayVariedMs_),
        Field("daConnectTimeoutMs", &PersistentValues::daConnectTimeoutMs_),
        Field("daMessageTimeoutMs", &PersistentValues::daMessageTimeoutMs_),
        Field("daPollDelayFixedMs", &PersistentValues::daPollDelayFixedMs_),
        Field("daPollDelayVariedMs", &PersistentValues::daPollDelayVariedMs_),
        Field("daRetryDelayFixedMs", &PersistentValues::daRetryDelayFixedMs_),
        Field("daRetryDelayVariedMs", &PersistentValues::daRetryDelayVariedMs_),
        Field("daStartupDelayFixedMs", &PersistentValues::daStartupDelayFixedMs_),
        Field("daStartupDelayVariedMs", &PersistentValues::daStartupDelayVariedMs_),
        Field("dsConnectTimeoutMs", &PersistentValues::dsConnectTimeoutMs_),
        Field("dsMessageTimeoutMs", &PersistentValues::dsMessageTimeoutMs_),
        Field("dsRetryDelayFixedMs", &PersistentValues::dsRetryDelayFixedMs_),
        Field("dsRetryDelayVariedMs", &PersistentValues::dsRetryDelayVariedMs_),
        Field("dsStartupDelayFixedMs", &PersistentValues::dsStartupDelayFixedMs_),
        Field("dsStartupDelayVariedMs", &PersistentValues::dsStartupDelayVariedMs_),
        Field("svConnectTimeoutMs", &PersistentValues::svConnectTimeoutMs_),
        Field("svMessageTimeoutMs", &PersistentValues::svMessageTimeoutMs_),
        Field("svRetryDelayFixedMs", &PersistentValues::svRetryDelayFixedMs_),
        Field("svRetryDelayVariedMs", &PersistentValues::svRetryDelayVariedMs_),
        Field("svActiveTimeoutMs", &PersistentValues::svActiveTimeoutMs_),
        Field("svPausedTimeoutMs", &PersistentValues::svPausedTimeoutMs_),
        Field("svLbrAwsDomain", &PersistentValues::svLbrAwsDomain_),
        Field("svMrsUrl", &PersistentValues::svMrsUrl_),
        Field("svNetworkDiagTimeoutMs", &PersistentValues::svNetworkDiagTimeoutMs_),
        Field("svPingTestHostname", &PersistentValues::svPingTestHostname_),
        Field("svSpeedTestDownloadSize", &PersistentValues::svSpeedTestDownloadSize_),
        Field("svSpeedTestDownloadTimeMs", &PersistentValues::svSpeedTestDownloadTimeMs_),
        Field("svSpeedTestDownloadUrl", &PersistentValues::svSpeedTestDownloadUrl_),
        Field("svSpeedTestUploadSize", &PersistentValues::svSpeedTestUploadSize_),
        Field("svSpeedTestUploadTimeMs", &PersistentValues::svSpeedTestUploadTimeMs_),
        Field("svSpeedTestUploadUrl", &PersistentValues::svSpeedTestUploadUrl_),
        Field("daConsentUrl", &PersistentValues::daConsentUrl_),
        Field("daConsentState", &PersistentValues::daConsentState_),
        Field("suConnectTimeoutMs", &PersistentValues::suConnectTimeoutMs_),
        Field("suMessageTimeoutMs", &PersistentValues::suMessageTimeoutMs_),
        Field("suMaxRetryCount", &PersistentValues::suMaxRetryCount_),
        Field("suRetryDelayFixedMs", &PersistentValues::suRetryDelayFixedMs_),
        Field("suRetryDelayVariedMs", &PersistentValues::suRetryDelayVariedMs_),
        Field("suStagingConnectTimeoutMs", &PersistentValues::suStagingConnectTimeoutMs_),
        Field("suStagingMessageTimeoutMs", &PersistentValues::suStagingMessageTimeoutMs_),
        Field("suStagingMaxRetryCount", &PersistentValues::suStagingMaxRetryCount_),
        Field("suStagingRetryDelayFixedMs", &PersistentValues::suStagingRetryDelayFixedMs_),
        Field("suStagingRetryDelayVariedMs", &PersistentValues::suStagingRetryDelayVariedMs_),
        Field("suCheckForSoftwareUpdate", &PersistentValues::suCheckForSoftwareUpdate_),
        Field("dsAllowedDataItemIds", &PersistentValues::dsAllowedDataItemIds_),
    };
    return *fields;
}

namespace {
bool IsHostName(const std::string& name) {
    for (char c : name) {
        bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '-' || c == ':';
        if (!allowed) {
            return false;
        }
    }
    return !name.empty();
}
}  // namespace

PersistentValues::PersistentValues(const ProductIdentity* identity, const CoreConfig* config,
                                   const DeviceValues* device)
    : PersistentBase(config) {
    // "FFFFFF0ACC.zel.localhost:18443": the operator id, then the cloud domain.
    bool haveCommonName = false;
    std::string opid;
    std::string instance;
    if (identity != nullptr && !identity->getCert().empty()) {
        std::string commonName;
        haveCommonName = X509Util::GetCommonName(identity->getCert(), commonName);
        // The name becomes the host part of every cloud URL: host-name
        // characters and a port only.
        if (haveCommonName && !IsHostName(commonName)) {
            ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                    "The device certificate's common name is not a host name");
            haveCommonName = false;
        } else if (haveCommonName) {
            size_t dot = commonName.find('.');
            opid = commonName.substr(0, dot);
            instance = dot == std::string::npos ? std::string() : commonName.substr(dot + 1);
            certOpid_ = opid;
            certInstance_ = instance;
        } else {
            ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                    "No common name in the device certificate");
        }
    }

    load();

    // The certificate and the device in hand win over a stale file; a change
    // makes the next evaluation store the values again.
    if (haveCommonName) {
        setCertOpid(opid);
        setCertInstance(instance);
    }
    if (device != nullptr) {
        setDeviceId(device->getId());
        setDeviceModel(device->getModel());
        setDeviceSubModel(device->getSubModel());
        setDevicePlatform(device->getPlatform());
        setDeviceBrand(device->getBrand());
        setDeviceEsn(device->getEsn());
        setDeviceMac(device->getMac());
        setDeviceSwVersion(device->getSwVersion());
    }

    loadTokenFile(backupToken_);
    // Rewritten only when a token exists that the file does not hold yet: an
    // empty gid token beside a backup is exactly what token recovery needs.
    if (!gidToken_.empty() && gidToken_ != backupToken_) {
        backupToken_ = gidToken_;
        tokenPersisted_ = storeTokenFile(gidToken_);
    }

    setSdkVersion(kSdkVersion);
}

template <typename T>
bool PersistentValues::assign(T& field, const T& value) {
    if (field == value) {
        return false;
    }
    field = value;
    persisted_ = false;
    return true;
}

bool PersistentValues::setGidToken(const std::string& value) {
    if (!assign(gidToken_, value)) {
        return false;
    }
    if (value.empty()) {
        // A retired token must not come back through token recovery.
        if (!backupToken_.empty()) {
            backupToken_.clear();
            tokenPersisted_ = storeTokenFile(backupToken_);
        }
    } else if (value != backupToken_) {
        backupToken_ = value;
        tokenPersisted_ = storeTokenFile(value);
    }
    return true;
}

bool PersistentValues::setSynchronized(bool value) {
    return assign(synchronized_, value);
}
bool PersistentValues::setTestMode(bool value) {
    return assign(testMode_, value);
}
bool PersistentValues::setSdkVersion(const std::string& value) {
    return assign(sdkVersion_, value);
}
bool PersistentValues::setCertOpid(const std::string& value) {
    return assign(certOpid_, value);
}
bool PersistentValues::setCertInstance(const std::string& value) {
    return assign(certInstance_, value);
}
bool PersistentValues::setDeviceId(const std::string& value) {
    return assign(deviceId_, value);
}
bool PersistentValues::setDeviceModel(const std::string& value) {
    return assign(deviceModel_, value);
}
bool PersistentValues::setDeviceSubModel(const std::string& value) {
    return assign(deviceSubModel_, value);
}
bool PersistentValues::setOemMsg(const std::string& value) {
    return assign(oemMsg_, value);
}
bool PersistentValues::setDevicePlatform(const std::string& value) {
    return assign(devicePlatform_, value);
}
bool PersistentValues::setDeviceBrand(const std::string& value) {
    return assign(deviceBrand_, value);
}
bool PersistentValues::setDeviceEsn(const std::string& value) {
    return assign(deviceEsn_, value);
}
bool PersistentValues::setDeviceMac(const std::string& value) {
    return assign(deviceMac_, value);
}
bool PersistentValues::setDeviceSwVersion(const std::string& value) {
    return assign(deviceSwVersion_, value);
}
bool PersistentValues::setOpidSeqNum(uint32_t value) {
    return assign(opidSeqNum_, value);
}
bool PersistentValues::setGidSeqNum(uint32_t value) {
    return assign(gidSeqNum_, value);
}
bool PersistentValues::setDaSupportViewEnabled(bool value) {
    return assign(daSupportViewEnabled_, value);
}
bool PersistentValues::setDsAggressiveQueuePercentage(uint32_t value) {
    return assign(dsAggressiveQueuePercentage_, value);
}
bool PersistentValues::setDsStandardDelayFixedMs(uint32_t value) {
    return assign(dsStandardDelayFixedMs_, value);
}
bool PersistentValues::setDsStandardDelayVariedMs(uint32_t value) {
    return assign(dsStandardDelayVariedMs_, value);
}
bool PersistentValues::setDsAggressiveDelayFixedMs(uint32_t value) {
    return assign(dsAggressiveDelayFixedMs_, value);
}
bool PersistentValues::setDsAggressiveDelayVariedMs(uint32_t value) {
    return assign(dsAggressiveDelayVariedMs_, value);
}
bool PersistentValues::setDaConnectTimeoutMs(uint32_t value) {
    return assign(daConnectTimeoutMs_, value);
}
bool PersistentValues::setDaMessageTimeoutMs(uint32_t value) {
    return assign(daMessageTimeoutMs_, value);
}
bool PersistentValues::setDaPollDelayFixedMs(uint32_t value) {
    return assign(daPollDelayFixedMs_, value);
}
bool PersistentValues::setDaPollDelayVariedMs(uint32_t value) {
    return assign(daPollDelayVariedMs_, value);
}
bool PersistentValues::setDaRetryDelayFixedMs(uint32_t value) {
    return assign(daRetryDelayFixedMs_, value);
}
bool PersistentValues::setDaRetryDelayVariedMs(uint32_t value) {
    return assign(daRetryDelayVariedMs_, value);
}
bool PersistentValues::setDaStartupDelayFixedMs(uint32_t value) {
    return assign(daStartupDelayFixedMs_, value);
}
bool PersistentValues::setDaStartupDelayVariedMs(uint32_t value) {
    return assign(daStartupDelayVariedMs_, value);
}
bool PersistentValues::setDsConnectTimeoutMs(uint32_t value) {
    return assign(dsConnectTimeoutMs_, value);
}
bool PersistentValues::setDsMessageTimeoutMs(uint32_t value) {
    return assign(dsMessageTimeoutMs_, value);
}
bool PersistentValues::setDsRetryDelayFixedMs(uint32_t value) {
    return assign(dsRetryDelayFixedMs_, value);
}
bool PersistentValues::setDsRetryDelayVariedMs(uint32_t value) {
    return assign(dsRetryDelayVariedMs_, value);
}
bool PersistentValues::setDsStartupDelayFixedMs(uint32_t value) {
    return assign(dsStartupDelayFixedMs_, value);
}
bool PersistentValues::setDsStartupDelayVariedMs(uint32_t value) {
    return assign(dsStartupDelayVariedMs_, value);
}
bool PersistentValues::setSvConnectTimeoutMs(uint32_t value) {
    return assign(svConnectTimeoutMs_, value);
}
bool PersistentValues::setSvMessageTimeoutMs(uint32_t value) {
    return assign(svMessageTimeoutMs_, value);
}
bool PersistentValues::setSvRetryDelayFixedMs(uint32_t value) {
    return assign(svRetryDelayFixedMs_, value);
}
bool PersistentValues::setSvRetryDelayVariedMs(uint32_t value) {
    return assign(svRetryDelayVariedMs_, value);
}
bool PersistentValues::setSvActiveTimeoutMs(uint32_t value) {
    return assign(svActiveTimeoutMs_, value);
}
bool PersistentValues::setSvPausedTimeoutMs(uint32_t value) {
    return assign(svPausedTimeoutMs_, value);
}
bool PersistentValues::setSvLbrAwsDomain(const std::string& value) {
    return assign(svLbrAwsDomain_, value);
}
bool PersistentValues::setSvMrsUrl(const std::string& value) {
    return assign(svMrsUrl_, value);
}
bool PersistentValues::setSvNetworkDiagTimeoutMs(uint32_t value) {
    return assign(svNetworkDiagTimeoutMs_, value);
}
bool PersistentValues::setSvPingTestHostname(const std::string& value) {
    return assign(svPingTestHostname_, value);
}
bool PersistentValues::setSvSpeedTestDownloadSize(uint32_t value) {
    return assign(svSpeedTestDownloadSize_, value);
}
bool PersistentValues::setSvSpeedTestDownloadTimeMs(uint32_t value) {
    return assign(svSpeedTestDownloadTimeMs_, value);
}
bool PersistentValues::setSvSpeedTestDownloadUrl(const std::string& value) {
    return assign(svSpeedTestDownloadUrl_, value);
}
bool PersistentValues::setSvSpeedTestUploadSize(uint32_t value) {
    return assign(svSpeedTestUploadSize_, value);
}
bool PersistentValues::setSvSpeedTestUploadTimeMs(uint32_t value) {
    return assign(svSpeedTestUploadTimeMs_, value);
}
bool PersistentValues::setSvSpeedTestUploadUrl(const std::string& value) {
    return assign(svSpeedTestUploadUrl_, value);
}
bool PersistentValues::setDaConsentUrl(const std::string& value) {
    return assign(daConsentUrl_, value);
}
bool PersistentValues::setDaConsentState(ConsentState value) {
    return assign(daConsentState_, value);
}
bool PersistentValues::setSuConnectTimeoutMs(uint32_t value) {
    return assign(suConnectTimeoutMs_, value);
}
bool PersistentValues::setSuMessageTimeoutMs(uint32_t value) {
    return assign(suMessageTimeoutMs_, value);
}
bool PersistentValues::setSuMaxRetryCount(uint32_t value) {
    return assign(suMaxRetryCount_, value);
}
bool PersistentValues::setSuRetryDelayFixedMs(uint32_t value) {
    return assign(suRetryDelayFixedMs_, value);
}
bool PersistentValues::setSuRetryDelayVariedMs(uint32_t value) {
    return assign(suRetryDelayVariedMs_, value);
}
bool PersistentValues::setSuStagingConnectTimeoutMs(uint32_t value) {
    return assign(suStagingConnectTimeoutMs_, value);
}
bool PersistentValues::setSuStagingMessageTimeoutMs(uint32_t value) {
    return assign(suStagingMessageTimeoutMs_, value);
}
bool PersistentValues::setSuStagingMaxRetryCount(uint32_t value) {
    return assign(suStagingMaxRetryCount_, value);
}
bool PersistentValues::setSuStagingRetryDelayFixedMs(uint32_t value) {
    return assign(suStagingRetryDelayFixedMs_, value);
}
bool PersistentValues::setSuStagingRetryDelayVariedMs(uint32_t value) {
    return assign(suStagingRetryDelayVariedMs_, value);
}
bool PersistentValues::setSuCheckForSoftwareUpdate(bool value) {
    return assign(suCheckForSoftwareUpdate_, value);
}
bool PersistentValues::setDsAllowedDataItemIds(const std::vector<std::string>& value) {
    return assign(dsAllowedDataItemIds_, value);
}
bool PersistentValues::testDaConsentUrl() {
    if (daConsentUrl_ == testedConsentUrl_) {
        return false;
    }
    testedConsentUrl_ = daConsentUrl_;
    return true;
}

bool PersistentValues::testDaConsentState() {
    if (daConsentState_ == testedConsentState_) {
        return false;
    }
    testedConsentState_ = daConsentState_;
    return true;
}

// A store that fails leaves the flags down, so the next evaluation tries again.
void PersistentValues::store() {
    if (!tokenPersisted_) {
        tokenPersisted_ = storeTokenFile(backupToken_);
    }
    if (persisted_) {
        return;
    }
    std::string text;
    marshal(text);
    persisted_ = storeValuesFile(text);
}

bool PersistentValues::load() {
    // A file that reads back intact but is no JSON object is as corrupt as
    // one with a bad digest: it is deleted and the defaults stay.
    auto usable = [](const std::string& text) {
        Json::Value root;
        return JsonUtil::Parse(text, root) && root.isObject();
    };
    std::string text;
    if (!loadValuesFile(text, usable) || !unmarshal(text)) {
        return false;
    }
    persisted_ = true;
    return true;
}

void PersistentValues::marshal(std::string& text) const {
    Json::Value root(Json::objectValue);
    for (const Field& field : Fields()) {
        switch (field.kind) {
            case Field::Text:
                root[field.key] = this->*field.text;
                break;
            case Field::Flag:
                root[field.key] = this->*field.flag;
                break;
            case Field::Number:
                root[field.key] = this->*field.number;
                break;
            case Field::Consent:
                root[field.key] = static_cast<uint32_t>(this->*field.consent);
                break;
            case Field::TextList: {
                Json::Value items(Json::arrayValue);
                for (const std::string& item : this->*field.list) {
                    items.append(item);
                }
                root[field.key] = items;
                break;
            }
        }
    }
    text = JsonUtil::Compact(root);
}

bool PersistentValues::unmarshal(const std::string& text) {
    Json::Value root;
    if (!JsonUtil::Parse(text, root) || !root.isObject()) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Problem JSON parsing %s",
                getValuesBaseName().c_str());
        return false;
    }
    for (const Field& field : Fields()) {
        const Json::Value& value = JsonUtil::Member(root, field.key);
        switch (field.kind) {
            case Field::Text: {
                std::string text;
                // A stored token that could not be sent is no token.
                if (JsonUtil::GetString(value, text) &&
                    (field.text != &PersistentValues::gidToken_ || IsUsableToken(text))) {
                    this->*field.text = text;
                }
                break;
            }
            case Field::Flag:
                JsonUtil::GetBool(value, this->*field.flag);
                break;
            case Field::Number:
                JsonUtil::GetUInt32(value, this->*field.number);
                break;
            case Field::Consent: {
                uint32_t consent = 0;
                if (JsonUtil::GetUInt32(value, consent) && consent <= ConsentStateUnsupported) {
                    this->*field.consent = static_cast<ConsentState>(consent);
                }
                break;
            }
            case Field::TextList: {
                if (!value.isArray()) {
                    break;
                }
                std::vector<std::string> items;
                bool allText = true;
                for (const Json::Value& item : value) {
                    std::string text;
                    allText = allText && JsonUtil::GetString(item, text);
                    if (!allText) {
                        break;
                    }
                    items.push_back(text);
                }
                if (allText) {
                    this->*field.list = items;
                }
                break;
            }
        }
    }
    return true;
}

void PersistentValues::logStateDebug() const {
    if (!Logger::Instance().test(ServiceCore, CategoryState, SeverityDebug)) {
        return;
    }
    for (const Field& field : Fields()) {
        std::string value;
        switch (field.kind) {
            case Field::Text:
                value = this->*field.text;
                break;
            case Field::Flag:
                value = (this->*field.flag) ? "true" : "false";
                break;
            case Field::Number:
                value = std::to_string(this->*field.number);
                break;
            case Field::Consent:
                value = ConsentStateToString(this->*field.consent);
                break;
            case Field::TextList: {
                Json::Value items(Json::arrayValue);
                for (const std::string& item : this->*field.list) {
                    items.append(item);
                }
                value = JsonUtil::Compact(items);
                break;
            }
        }
        // The gid token is a credential: only its presence goes to the log.
        if (field.text == &PersistentValues::gidToken_ && !value.empty()) {
            value = "(set)";
        }
        ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "persist->%-28s: %s", field.key,
                value.c_str());
    }
}

}  // namespace Core
}  // namespace Zel
