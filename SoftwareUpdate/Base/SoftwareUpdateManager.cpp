#include "SoftwareUpdate/Base/SoftwareUpdateManager.h"

#include <cstdlib>
#include <cstring>

#include "Core/Base/CoreConfig.h"
#include "Core/Base/CoreManager.h"
#include "Core/Base/CoreMutex.h"
#include "Core/Base/EventManager.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Su {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SoftwareUpdateManager";

char* duplicate(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) {
        std::memcpy(copy, text.c_str(), text.size() + 1);
    }
    return copy;
}

const char* boolText(bool value) {
    return value ? "true" : "false";
}
}  // namespace

// Never destroyed, like the core it belongs to.
SoftwareUpdateManager& SoftwareUpdateManager::Instance() {
    static SoftwareUpdateManager* instance = new SoftwareUpdateManager;
    return *instance;
}

SoftwareUpdateManager::SoftwareUpdateManager() : changes_(false, CoreMutex()) {}

const char* SoftwareUpdateManager::ZelSoftwareUpdateStateToString(unsigned state) {
    static const char* const texts[] = {"NotAvailable", "Failed",    "Available",
                                        "Downloaded",   "Confirmed", "Unsupported"};
    return state < 6 ? texts[state] : "Unknown";
}

const char* SoftwareUpdateManager::ZelSoftwareUpdateSourceToString(unsigned source) {
    static const char* const texts[] = {"Local", "Network"};
    return source < 2 ? texts[source] : "Unknown";
}

const char* SoftwareUpdateManager::ZelSoftwareUpdatePermissionToString(unsigned permission) {
    static const char* const texts[] = {"None", "Download", "Confirm"};
    return permission < 3 ? texts[permission] : "Unknown";
}

void SoftwareUpdateManager::initialize(const ServiceContext& context) {
    config_ = std::make_unique<SoftwareUpdateConfig>(context.configText);
    persistent_ = context.persistent;
    persistentPath_ = context.config->getPersistentPath();
    delaySem_ = std::make_unique<TimedSem>(CoreMutex());
    source_ = ZelSoftwareUpdateSourceNetwork;
    permission_ = ZelSoftwareUpdatePermissionNone;
    values_ = SuValues();
    std::string text;
    if (FileUtil::Load(persistentPath_, SuValues::kBaseName, text)) {
        values_.unmarshal(text);
    }
    stored_ = values_;
    // A kept offer is taken up again at once: it may be half staged.
    changesPending_ = !values_.metadata.empty();
    force_ = false;
    terminating_ = false;
    resetting_ = false;
    state_ = percent_ = 0;
    signalledState_ = signalledPercent_ = signalledPermission_ = 0;
    mandatory_ = autoAnswer_ = false;
    version_.clear();
    displayText_.clear();
    hash_.clear();
    EventManager::Instance().setReceiver("softwareupdate", [this](const Event& event) {
        setSource(ZelSoftwareUpdateSourceNetwork, event.parameters, false);
    });
    ThreadUtil::Start(thread_, UpdateControl, this, "UpdateControl");
    logStateInfo();
}

void SoftwareUpdateManager::terminateBegin() {
    terminating_ = true;
    resetting_ = CoreManager::Instance().getDeviceAgentState() == CoreManager::FactoryResetting;
    changes_.giveLocked();
    if (delaySem_) {
        delaySem_->reset();
    }
}

void SoftwareUpdateManager::terminateEnd() {
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Waiting for UpdateControl to join");
    ThreadUtil::Join(thread_);
    LockMutex lock(CoreMutex());
    persistent_ = nullptr;
}

void SoftwareUpdateManager::factoryResetOffline(const ServiceContext& context) {
    SoftwareUpdateConfig config(context.configText);
    PayloadManager::RemoveStagingFile(config.getStagingLocation());
    FileUtil::Drop(context.config->getPersistentPath(), SuValues::kBaseName);
}

bool SoftwareUpdateManager::terminating() const {
    return terminating_ ||
           CoreManager::Instance().getDeviceAgentState() != CoreManager::Initialized;
}

unsigned SoftwareUpdateManager::setSource(unsigned source, const std::string& location,
                                          bool fromHost) {
    bool toNetwork = false;
    {
        LockMutex lock(CoreMutex());
        if (!config_ || terminating()) {
            return ZelResultNotInitialized;
        }
        bool changed = source != source_;
        if (source == ZelSoftwareUpdateSourceLocal) {
            ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Local Location: %s", location.c_str());
            changed = changed || values_.location != location;
            values_.location = location;
        } else if (!fromHost) {
            // The host names the network; the cloud hands over what it offers.
            ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Network Metadata: %s",
                    location.c_str());
            changed = changed || values_.metadata != location;
            values_.metadata = location;
        }
        if (source_ == ZelSoftwareUpdateSourceLocal && source == ZelSoftwareUpdateSourceNetwork) {
            ZEL_LOG(ServiceSu, CategoryState, SeverityInfo,
                    "Going from Local to Network, force Check");
            toNetwork = true;
        }
        source_ = source;
        if (changed || fromHost) {
            force_ = force_ || fromHost;
            changesPending_ = true;
            changes_.giveLocked();
        }
    }
    if (toNetwork) {
        CoreManager::Instance().checkForSoftwareUpdate();
    }
    return ZelResultSuccess;
}

unsigned SoftwareUpdateManager::setPermission(unsigned permission) {
    LockMutex lock(CoreMutex());
    if (!config_ || terminating()) {
        return ZelResultNotInitialized;
    }
    if (state_ > ZelSoftwareUpdateStateFailed && permission != permission_) {
        permission_ = permission;
        changesPending_ = true;
        changes_.giveLocked();
    }
    return ZelResultSuccess;
}

void SoftwareUpdateManager::getStatus(ZelStatus& status) {
    if (state_ > ZelSoftwareUpdateStateFailed) {
        status.updateVersion = duplicate(version_);
        status.updateDisplayText = duplicate(displayText_);
        status.updateHash = duplicate(hash_);
        status.updateMandatory = mandatory_ ? 1 : 0;
        status.updateAutoAnswer = autoAnswer_ ? 1 : 0;
    }
    if (config_ && CoreManager::Instance().getDeviceAgentState() == CoreManager::Initialized) {
        status.updateStagingFile = duplicate(config_->getStagingLocation());
    }
    status.updateState = state_;
    status.updateSource = source_;
    status.updatePermission = permission_;
    status.updatePercentDownloaded = percent_;
}

void SoftwareUpdateManager::setState(unsigned state) {
    LockMutex lock(CoreMutex());
    state_ = state;
}

void SoftwareUpdateManager::logStateInfo() const {
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update State Change:  %s %s %s %u%%",
            ZelSoftwareUpdateSourceToString(source_),
            ZelSoftwareUpdatePermissionToString(permission_),
            ZelSoftwareUpdateStateToString(state_), percent_);
}

void SoftwareUpdateManager::logStatusInfo() const {
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update Source         = %s",
            ZelSoftwareUpdateSourceToString(source_));
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update Permission     = %s",
            ZelSoftwareUpdatePermissionToString(permission_));
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update State          = %s",
            ZelSoftwareUpdateStateToString(state_));
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update Staging File   = %s",
            config_ ? config_->getStagingLocation().c_str() : "");
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update Version        = %s", version_.c_str());
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update DisplayText    = %s",
            displayText_.c_str());
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update Hash           = %s", hash_.c_str());
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update Mandatory      = %s",
            boolText(mandatory_));
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update AutoAnswer     = %s",
            boolText(autoAnswer_));
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "Update %% Downloaded   = %u", percent_);
}

}  // namespace Su
}  // namespace Zel
