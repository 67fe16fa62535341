#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Core/Base/PersistentBase.h"

namespace Zel {
namespace Core {

class CoreConfig;
class DeviceValues;
class ProductIdentity;

enum ConsentState : uint32_t {
    ConsentStateNotAvailable = 0,
    ConsentStateNotRequired = 1,
    ConsentStateRequired = 2,
    ConsentStateStarted = 3,
    ConsentStateCompleted = 4,
    ConsentStateUnsupported = 5,
};

// "NotAvailable" ... "Unsupported"; "Unknown" for anything else.
const char* ConsentStateToString(uint32_t state);

// Everything the core keeps across restarts, stored as the "coreValues" file.
// The gid token also has a spare copy in the "coreToken" file, so that losing
// the values file does not cost the device its cloud identity.
//
// Not thread-safe: callers hold the core mutex.
class PersistentValues : public PersistentBase {
public:
    // Any pointer may be null (the matching fields then keep their defaults).
    // The certificate's common name "OPID.instance" gives certOpid (before the
    // first ".") and certInstance (after it); certificate and device values
    // are applied after the values file is loaded, so they win over what was
    // stored. The token file is rewritten when it differs from a non-empty
    // gid token.
    PersistentValues(const ProductIdentity* identity, const CoreConfig* config,
                     const DeviceValues* device);

    // Every setter returns true when the value changed, and then the values
    // are no longer persisted.
    //
    // setGidToken keeps the token file in step: a new non-empty token is
    // written to it at once (and becomes the backup token); an empty token
    // (the cloud rejected the identity) removes the token file and clears the
    // backup, so that the rejected token is not "recovered" again.
    const std::string& getGidToken() const { return gidToken_; }
    bool setGidToken(const std::string& value);

    bool getSynchronized() const { return synchronized_; }
    bool setSynchronized(bool value);

    bool getTestMode() const { return testMode_; }
    bool setTestMode(bool value);

    const std::string& getSdkVersion() const { return sdkVersion_; }
    bool setSdkVersion(const std::string& value);

    const std::string& getCertOpid() const { return certOpid_; }
    bool setCertOpid(const std::string& value);

    const std::string& getCertInstance() const { return certInstance_; }
    bool setCertInstance(const std::string& value);

    const std::string& getDeviceId() const { return deviceId_; }
    bool setDeviceId(const std::string& value);

    const std::string& getDeviceModel() const { return deviceModel_; }
    bool setDeviceModel(const std::string& value);

    const std::string& getDeviceSubModel() const { return deviceSubModel_; }
    bool setDeviceSubModel(const std::string& value);

    const std::string& getOemMsg() const { return oemMsg_; }
    bool setOemMsg(const std::string& value);

    const std::string& getDevicePlatform() const { return devicePlatform_; }
    bool setDevicePlatform(const std::string& value);

    const std::string& getDeviceBrand() const { return deviceBrand_; }
    bool setDeviceBrand(const std::string& value);

    const std::string& getDeviceEsn() const { return deviceEsn_; }
    bool setDeviceEsn(const std::string& value);

    const std::string& getDeviceMac() const { return deviceMac_; }
    bool setDeviceMac(const std::string& value);

    const std::string& getDeviceSwVersion() const { return deviceSwVersion_; }
    bool setDeviceSwVersion(const std::string& value);

    uint32_t getOpidSeqNum() const { return opidSeqNum_; }
    bool setOpidSeqNum(uint32_t value);

    uint32_t getGidSeqNum() const { return gidSeqNum_; }
    bool setGidSeqNum(uint32_t value);

    bool getDaSupportViewEnabled() const { return daSupportViewEnabled_; }
    bool setDaSupportViewEnabled(bool value);

    uint32_t getDsAggressiveQueuePercentage() const { return dsAggressiveQueuePercentage_; }
    bool setDsAggressiveQueuePercentage(uint32_t value);

    uint32_t getDsStandardDelayFixedMs() const { return dsStandardDelayFixedMs_; }
    bool setDsStandardDelayFixedMs(uint32_t value);

    uint32_t getDsStandardDelayVariedMs() const { return dsStandardDelayVariedMs_; }
    bool setDsStandardDelayVariedMs(uint32_t value);

    uint32_t getDsAggressiveDelayFixedMs() const { return dsAggressiveDelayFixedMs_; }
    bool setDsAggressiveDelayFixedMs(uint32_t value);

    uint32_t getDsAggressiveDelayVariedMs() const { return dsAggressiveDelayVariedMs_; }
    bool setDsAggressiveDelayVariedMs(uint32_t value);

    uint32_t getDaConnectTimeoutMs() const { return daConnectTimeoutMs_; }
    bool setDaConnectTimeoutMs(uint32_t value);

    uint32_t getDaMessageTimeoutMs() const { return daMessageTimeoutMs_; }
    bool setDaMessageTimeoutMs(uint32_t value);

    uint32_t getDaPollDelayFixedMs() const { return daPollDelayFixedMs_; }
    bool setDaPollDelayFixedMs(uint32_t value);

    uint32_t getDaPollDelayVariedMs() const { return daPollDelayVariedMs_; }
    bool setDaPollDelayVariedMs(uint32_t value);

    uint32_t getDaRetryDelayFixedMs() const { return daRetryDelayFixedMs_; }
    bool setDaRetryDelayFixedMs(uint32_t value);

    uint32_t getDaRetryDelayVariedMs() const { return daRetryDelayVariedMs_; }
    bool setDaRetryDelayVariedMs(uint32_t value);

    uint32_t getDaStartupDelayFixedMs() const { return daStartupDelayFixedMs_; }
    bool setDaStartupDelayFixedMs(uint32_t value);

    uint32_t getDaStartupDelayVariedMs() const { return daStartupDelayVariedMs_; }
    bool setDaStartupDelayVariedMs(uint32_t value);

    uint32_t getDsConnectTimeoutMs() const { return dsConnectTimeoutMs_; }
    bool setDsConnectTimeoutMs(uint32_t value);

    uint32_t getDsMessageTimeoutMs() const { return dsMessageTimeoutMs_; }
    bool setDsMessageTimeoutMs(uint32_t value);

    uint32_t getDsRetryDelayFixedMs() const { return dsRetryDelayFixedMs_; }
    bool setDsRetryDelayFixedMs(uint32_t value);

    uint32_t getDsRetryDelayVariedMs() const { return dsRetryDelayVariedMs_; }
    bool setDsRetryDelayVariedMs(uint32_t value);

    uint32_t getDsStartupDelayFixedMs() const { return dsStartupDelayFixedMs_; }
    bool setDsStartupDelayFixedMs(uint32_t value);

    uint32_t getDsStartupDelayVariedMs() const { return dsStartupDelayVariedMs_; }
    bool setDsStartupDelayVariedMs(uint32_t value);

    uint32_t getSvConnectTimeoutMs() const { return svConnectTimeoutMs_; }
    bool setSvConnectTimeoutMs(uint32_t value);

    uint32_t getSvMessageTimeoutMs() const { return svMessageTimeoutMs_; }
    bool setSvMessageTimeoutMs(uint32_t value);

    uint32_t getSvRetryDelayFixedMs() const { return svRetryDelayFixedMs_; }
    bool setSvRetryDelayFixedMs(uint32_t value);

    uint32_t getSvRetryDelayVariedMs() const { return svRetryDelayVariedMs_; }
    bool setSvRetryDelayVariedMs(uint32_t value);

    uint32_t getSvActiveTimeoutMs() const { return svActiveTimeoutMs_; }
    bool setSvActiveTimeoutMs(uint32_t value);

    uint32_t getSvPausedTimeoutMs() const { return svPausedTimeoutMs_; }
    bool setSvPausedTimeoutMs(uint32_t value);

    const std::string& getSvLbrAwsDomain() const { return svLbrAwsDomain_; }
    bool setSvLbrAwsDomain(const std::string& value);

    const std::string& getSvMrsUrl() const { return svMrsUrl_; }
    bool setSvMrsUrl(const std::string& value);

    uint32_t getSvNetworkDiagTimeoutMs() const { return svNetworkDiagTimeoutMs_; }
    bool setSvNetworkDiagTimeoutMs(uint32_t value);

    const std::string& getSvPingTestHostname() const { return svPingTestHostname_; }
    bool setSvPingTestHostname(const std::string& value);

    uint32_t getSvSpeedTestDownloadSize() const { return svSpeedTestDownloadSize_; }
    bool setSvSpeedTestDownloadSize(uint32_t value);

    uint32_t getSvSpeedTestDownloadTimeMs() const { return svSpeedTestDownloadTimeMs_; }
    bool setSvSpeedTestDownloadTimeMs(uint32_t value);

    const std::string& getSvSpeedTestDownloadUrl() const { return svSpeedTestDownloadUrl_; }
    bool setSvSpeedTestDownloadUrl(const std::string& value);

    uint32_t getSvSpeedTestUploadSize() const { return svSpeedTestUploadSize_; }
    bool setSvSpeedTestUploadSize(uint32_t value);

    uint32_t getSvSpeedTestUploadTimeMs() const { return svSpeedTestUploadTimeMs_; }
    bool setSvSpeedTestUploadTimeMs(uint32_t value);

    const std::string& getSvSpeedTestUploadUrl() const { return svSpeedTestUploadUrl_; }
    bool setSvSpeedTestUploadUrl(const std::string& value);

    const std::string& getDaConsentUrl() const { return daConsentUrl_; }
    bool setDaConsentUrl(const std::string& value);

    ConsentState getDaConsentState() const { return daConsentState_; }
    bool setDaConsentState(ConsentState value);

    uint32_t getSuConnectTimeoutMs() const { return suConnectTimeoutMs_; }
    bool setSuConnectTimeoutMs(uint32_t value);

    uint32_t getSuMessageTimeoutMs() const { return suMessageTimeoutMs_; }
    bool setSuMessageTimeoutMs(uint32_t value);

    uint32_t getSuMaxRetryCount() const { return suMaxRetryCount_; }
    bool setSuMaxRetryCount(uint32_t value);

    uint32_t getSuRetryDelayFixedMs() const { return suRetryDelayFixedMs_; }
    bool setSuRetryDelayFixedMs(uint32_t value);

    uint32_t getSuRetryDelayVariedMs() const { return suRetryDelayVariedMs_; }
    bool setSuRetryDelayVariedMs(uint32_t value);

    uint32_t getSuStagingConnectTimeoutMs() const { return suStagingConnectTimeoutMs_; }
    bool setSuStagingConnectTimeoutMs(uint32_t value);

    uint32_t getSuStagingMessageTimeoutMs() const { return suStagingMessageTimeoutMs_; }
    bool setSuStagingMessageTimeoutMs(uint32_t value);

    uint32_t getSuStagingMaxRetryCount() const { return suStagingMaxRetryCount_; }
    bool setSuStagingMaxRetryCount(uint32_t value);

    uint32_t getSuStagingRetryDelayFixedMs() const { return suStagingRetryDelayFixedMs_; }
    bool setSuStagingRetryDelayFixedMs(uint32_t value);

    uint32_t getSuStagingRetryDelayVariedMs() const { return suStagingRetryDelayVariedMs_; }
    bool setSuStagingRetryDelayVariedMs(uint32_t value);

    bool getSuCheckForSoftwareUpdate() const { return suCheckForSoftwareUpdate_; }
    bool setSuCheckForSoftwareUpdate(bool value);

    const std::vector<std::string>& getDsAllowedDataItemIds() const {
        return dsAllowedDataItemIds_;
    }
    bool setDsAllowedDataItemIds(const std::vector<std::string>& value);

    // The content of the token file, read at construction.
    const std::string& getBackupToken() const { return backupToken_; }

    // True once after each change of the consent URL / consent state.
    bool testDaConsentUrl();
    bool testDaConsentState();

    // False until both the values file and the token file hold what memory does.
    bool isPersisted() const { return persisted_ && tokenPersisted_; }
    // Writes the values file when something changed since the last store/load.
    void store();
    // Reads the values file; false when there is none (defaults stay).
    bool load();

    void marshal(std::string& text) const;
    // Takes every member present with the right type; other fields keep their
    // current value. False when the text is not a JSON object.
    bool unmarshal(const std::string& text);

    void logStateDebug() const;

private:
    struct Field;
    static const std::vector<Field>& Fields();

    template <typename T>
    bool assign(T& field, const T& value);

    bool tokenPersisted_ = true;  // the token file holds backupToken_

    std::string gidToken_ = "";
    bool synchronized_ = false;
    bool testMode_ = false;
    std::string sdkVersion_ = "4.8.0-255-g4399f3ce";
    std::string certOpid_ = "";
    std::string certInstance_ = "";
    std::string deviceId_ = "";
    std::string deviceModel_ = "";
    std::string deviceSubModel_ = "";
    std::string oemMsg_ = "";
    std::string devicePlatform_ = "";
    std::string deviceBrand_ = "";
    std::string deviceEsn_ = "";
    std::string deviceMac_ = "";
    std::string deviceSwVersion_ = "";
    uint32_t opidSeqNum_ = 0;
    uint32_t gidSeqNum_ = 0;
    bool daSupportViewEnabled_ = false;
    uint32_t dsAggressiveQueuePercentage_ = 85;
    uint32_t dsStandardDelayFixedMs_ = 60000;
    uint32_t dsStandardDelayVariedMs_ = 60000;
    uint32_t dsAggressiveDelayFixedMs_ = 30000;
    uint32_t dsAggressiveDelayVariedMs_ = 30000;
    uint32_t daConnectTimeoutMs_ = 45000;
    uint32_t daMessageTimeoutMs_ = 60000;
    uint32_t daPollDelayFixedMs_ = 3150000;
    uint32_t daPollDelayVariedMs_ = 900000;
    uint32_t daRetryDelayFixedMs_ = 15000;
    uint32_t daRetryDelayVariedMs_ = 15000;
    uint32_t daStartupDelayFixedMs_ = 0;
    uint32_t daStartupDelayVariedMs_ = 0;
    uint32_t dsConnectTimeoutMs_ = 45000;
    uint32_t dsMessageTimeoutMs_ = 60000;
    uint32_t dsRetryDelayFixedMs_ = 15000;
    uint32_t dsRetryDelayVariedMs_ = 15000;
    uint32_t dsStartupDelayFixedMs_ = 0;
    uint32_t dsStartupDelayVariedMs_ = 0;
    uint32_t svConnectTimeoutMs_ = 45000;
    uint32_t svMessageTimeoutMs_ = 60000;
    uint32_t svRetryDelayFixedMs_ = 2500;
    uint32_t svRetryDelayVariedMs_ = 2500;
    uint32_t svActiveTimeoutMs_ = 60000;
    uint32_t svPausedTimeoutMs_ = 180000;
    std::string svLbrAwsDomain_ = "";
    std::string svMrsUrl_ = "";
    uint32_t svNetworkDiagTimeoutMs_ = 20000;
    std::string svPingTestHostname_ = "";
    uint32_t svSpeedTestDownloadSize_ = 102400;
    uint32_t svSpeedTestDownloadTimeMs_ = 20000;
    std::string svSpeedTestDownloadUrl_ = "";
    uint32_t svSpeedTestUploadSize_ = 102400;
    uint32_t svSpeedTestUploadTimeMs_ = 20000;
    std::string svSpeedTestUploadUrl_ = "";
    std::string daConsentUrl_ = "";
    ConsentState daConsentState_ = ConsentStateNotAvailable;
    uint32_t suConnectTimeoutMs_ = 45000;
    uint32_t suMessageTimeoutMs_ = 60000;
    uint32_t suMaxRetryCount_ = 3;
    uint32_t suRetryDelayFixedMs_ = 30000;
    uint32_t suRetryDelayVariedMs_ = 30000;
    uint32_t suStagingConnectTimeoutMs_ = 60000;
    uint32_t suStagingMessageTimeoutMs_ = 120000;
    uint32_t suStagingMaxRetryCount_ = 3;
    uint32_t suStagingRetryDelayFixedMs_ = 5000;
    uint32_t suStagingRetryDelayVariedMs_ = 5000;
    bool suCheckForSoftwareUpdate_ = false;
    std::vector<std::string> dsAllowedDataItemIds_;
    std::string backupToken_;
    bool persisted_ = false;
    std::string testedConsentUrl_;
    uint32_t testedConsentState_ = ConsentStateNotAvailable;
};

}  // namespace Core
}  // namespace Zel
