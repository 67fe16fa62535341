#include "tools/cloud/CloudSettings.h"

namespace ZelCloud {

CloudSettings::CloudSettings()
    : operatorKeys_(Json::objectValue), addressDefaults_(Json::objectValue) {}

Json::Value CloudSettings::Defaults() {
    Json::Value keys(Json::objectValue);
    // Fast enough for a lab: polls every few seconds, retries after a couple.
    for (const char* service : {"da", "ds", "sv", "su"}) {
        std::string prefix(service);
        keys[prefix + "ConnectTimeoutMs"] = 10000;
        keys[prefix + "MessageTimeoutMs"] = 20000;
        keys[prefix + "RetryDelayFixedMs"] = 2000;
        keys[prefix + "RetryDelayVariedMs"] = 1000;
    }
    keys["daPollDelayFixedMs"] = 5000;
    keys["daPollDelayVariedMs"] = 1000;
    keys["daStartupDelayFixedMs"] = 0;
    keys["daStartupDelayVariedMs"] = 0;
    keys["dsStartupDelayFixedMs"] = 0;
    keys["dsStartupDelayVariedMs"] = 0;
    // Remote support is on; a session idles out after a minute, a suspended
    // one after three.
    keys["daSupportViewEnabled"] = true;
    keys["svActiveTimeoutMs"] = 60000;
    keys["svPausedTimeoutMs"] = 180000;
    keys["svLbrAwsDomain"] = "lab.zel.localhost";
    // Network diagnostics stay on this machine: the speed test's urls come
    // with the cloud's address (setAddressDefaults).
    keys["svPingTestHostname"] = "localhost";
    keys["svNetworkDiagTimeoutMs"] = 20000;
    keys["svSpeedTestDownloadSize"] = 102400;
    keys["svSpeedTestUploadSize"] = 102400;
    keys["svSpeedTestDownloadTimeMs"] = 20000;
    keys["svSpeedTestUploadTimeMs"] = 20000;
    keys["suStagingConnectTimeoutMs"] = 10000;
    keys["suStagingMessageTimeoutMs"] = 20000;
    keys["suStagingRetryDelayFixedMs"] = 2000;
    keys["suStagingRetryDelayVariedMs"] = 1000;
    // Handed out by drmp work answers without the "drmp" prefix.
    keys["drmpConnectTimeoutMs"] = 10000;
    keys["drmpMessageTimeoutMs"] = 20000;
    keys["drmpPollDelayFixedMs"] = 5000;
    keys["drmpPollDelayVariedMs"] = 1000;
    keys["drmpRetryDelayFixedMs"] = 2000;
    keys["drmpRetryDelayVariedMs"] = 1000;
    keys["drmpStartupDelayFixedMs"] = 0;
    keys["drmpStartupDelayVariedMs"] = 0;
    return keys;
}

void CloudSettings::setAddressDefaults(const Json::Value& keys) {
    if (!keys.isObject()) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    for (const std::string& name : keys.getMemberNames()) {
        addressDefaults_[name] = keys[name];
    }
}

bool CloudSettings::merge(const Json::Value& keys) {
    if (!keys.isObject()) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    for (const std::string& name : keys.getMemberNames()) {
        if (keys[name].isNull()) {
            operatorKeys_.removeMember(name);
        } else {
            operatorKeys_[name] = keys[name];
        }
    }
    ++version_;
    return true;
}

Json::Value CloudSettings::current() const {
    Json::Value keys = Defaults();
    std::lock_guard<std::mutex> lock(mutex_);
    for (const std::string& name : addressDefaults_.getMemberNames()) {
        keys[name] = addressDefaults_[name];
    }
    for (const std::string& name : operatorKeys_.getMemberNames()) {
        keys[name] = operatorKeys_[name];
    }
    return keys;
}

uint32_t CloudSettings::version() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return version_;
}

}  // namespace ZelCloud
