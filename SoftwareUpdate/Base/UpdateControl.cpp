// SoftwareUpdateManager's UpdateControl thread: one step of the offered
// update per turn, so that a change of source or permission, or the end of
// the agent, is seen between blocks.
#include "Core/Base/CoreManager.h"
#include "Core/Base/CoreMutex.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Project/DeviceValues.h"
#include "Core/Project/ProductIdentity.h"
#include "SoftwareUpdate/Base/SoftwareUpdateManager.h"
#include "SoftwareUpdate/Base/UpdateDecisions.h"
#include "SoftwareUpdate/Platform/MetadataToken.h"

namespace Zel {
namespace Su {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SoftwareUpdateManager";

bool offered(unsigned state) {
    return state == ZelSoftwareUpdateStateAvailable || state == ZelSoftwareUpdateStateDownloaded ||
           state == ZelSoftwareUpdateStateConfirmed;
}
}  // namespace

void* SoftwareUpdateManager::UpdateControl(void* self) {
    static_cast<SoftwareUpdateManager*>(self)->updateControl();
    return nullptr;
}

void SoftwareUpdateManager::updateControl() {
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl started");
    Snapshot snapshot;
    while (waitForChanges(snapshot)) {
        runTurn(snapshot);
        finishTurn();
    }
    payload_.reset();
    bool resetting;
    std::string staging;
    {
        LockMutex lock(CoreMutex());
        resetting = resetting_;
        staging = config_->getStagingLocation();
    }
    // A factory reset forgets the half-staged update too.
    if (resetting) {
        PayloadManager::RemoveStagingFile(staging);
    }
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl terminated");
}

// Sleeps until there is something to do; false when the agent stops.
bool SoftwareUpdateManager::waitForChanges(Snapshot& snapshot) {
    LockMutex lock(CoreMutex());
    if (terminating()) {
        return false;
    }
    bool downloading = payload_ && payload_->isLocked() && !payload_->isComplete();
    if (!changesPending_ && !downloading) {
        ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl Waiting for changes");
        while (!changesPending_ && !terminating()) {
            changes_.takeLocked();
        }
        if (terminating()) {
            return false;
        }
        ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl Processing changes");
    }
    changesPending_ = false;
    snapshot.source = source_;
    snapshot.location = values_.location;
    snapshot.metadata = values_.metadata;
    snapshot.permission = permission_;
    snapshot.force = force_;
    force_ = false;
    return true;
}

bool SoftwareUpdateManager::waitUntil(const timespec& deadline) {
    LockMutex lock(CoreMutex());
    if (!terminating()) {
        delaySem_->wait(&deadline);
    }
    return !terminating();
}

void SoftwareUpdateManager::runTurn(const Snapshot& snapshot) {
    if (payload_ && snapshot.offer() != activeOffer_) {
        supersede();
    }
    if (snapshot.force) {
        failedOffer_.clear();
    }
    if (!payload_ && !snapshot.empty() && snapshot.offer() != failedOffer_ && !analyse(snapshot)) {
        return;
    }
    if (!payload_) {
        return;
    }
    applyPermission(snapshot);
    if (payload_->getFailure()) {
        failTurn(payload_->getFailReason(), payload_->getFailTime());
        return;
    }
    if (payload_->isLocked() && !payload_->isComplete()) {
        ZEL_LOG(ServiceSu, CategoryState, SeverityInfo,
                "UpdateControl Transferring a block to staging file");
        payload_->downloadNextBlock();
        payload_->logStateDebug();
        if (payload_->getFailure()) {
            failTurn(payload_->getFailReason(), payload_->getFailTime());
            return;
        }
    }
    settle(snapshot);
}

void SoftwareUpdateManager::supersede() {
    unsigned state;
    {
        LockMutex lock(CoreMutex());
        state = state_;
    }
    if (offered(state)) {
        ZEL_LOG(ServiceSu, CategoryState, SeverityInfo,
                "UpdateControl Notifying microservice of superseded update");
        payload_->fail("update superseded");
        SendTerminalStatus(activeNetwork_, true, payload_->getFailReason(), payload_->getFailTime(),
                           activeToken_);
        ZEL_LOG(ServiceSu, CategoryState, SeverityInfo,
                "UpdateControl Removing previous staging file");
        payload_->removeStagingFile();
    }
    payload_.reset();
    activeOffer_.clear();
    setState(ZelSoftwareUpdateStateNotAvailable);
}

// Turns the offer into a verified PayloadManager; false when it failed.
bool SoftwareUpdateManager::analyse(const Snapshot& snapshot) {
    ProductKit kit;
    std::string staging;
    {
        LockMutex lock(CoreMutex());
        CoreManager& core = CoreManager::Instance();
        if (persistent_ == nullptr || core.getCoreIdentityPtr() == nullptr) {
            return false;
        }
        kit.domain = persistent_->getCertInstance();
        kit.opid = persistent_->getCertOpid();
        kit.keyPem = core.getCoreIdentityPtr()->getKey();
        kit.password = core.getCoreIdentityPtr()->getPassword();
        kit.swVersion = core.getCoreDevicePtr()->getSwVersion();
        kit.maxBlockSizeBytes = config_->getMaxBlockSizeBytes();
        staging = config_->getStagingLocation();
    }
    activeOffer_ = snapshot.offer();
    activeNetwork_ = !snapshot.local();
    activeToken_ = snapshot.metadata;
    if (snapshot.local()) {
        ZEL_LOG(ServiceSu, CategoryState, SeverityInfo,
                "UpdateControl Reading local metadata from %s", snapshot.location.c_str());
        FailureRecord failure;
        activeToken_.clear();
        PayloadManager::ReadMetadata(snapshot.location, activeToken_, failure.failure,
                                     failure.reason, failure.time);
        if (failure.failure) {
            failTurn(failure.reason, failure.time);
            return false;
        }
    }
    // The device runs it already: what is staged of it has served its purpose.
    std::string version;
    std::string hash;
    if (MetadataToken::Peek(activeToken_, version, hash)) {
        LockMutex lock(CoreMutex());
        if (version == kit.swVersion || (!hash.empty() && hash == values_.installed)) {
            ZEL_LOG(ServiceSu, CategoryState, SeverityInfo,
                    "UpdateControl Removing installed staging file");
            PayloadManager::RemoveStagingFile(staging);
            values_.installed = hash;
            if (!snapshot.local() && values_.metadata == snapshot.metadata) {
                values_.metadata.clear();
            }
            failedOffer_ = activeOffer_;
            activeOffer_.clear();
            state_ = ZelSoftwareUpdateStateNotAvailable;
            return false;
        }
    }
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl Analyzing metadata");
    payload_ = std::make_unique<PayloadManager>(
        activeToken_, snapshot.local() ? snapshot.location : std::string(), staging, kit);
    if (payload_->getFailure()) {
        failTurn(payload_->getFailReason(), payload_->getFailTime());
        return false;
    }
    turnPermission_ = ZelSoftwareUpdatePermissionNone;
    reported_ = false;
    LockMutex lock(CoreMutex());
    state_ = ZelSoftwareUpdateStateAvailable;
    percent_ = 0;
    mandatory_ = payload_->getMandatory();
    autoAnswer_ = payload_->getAutoAnswer();
    version_ = payload_->getVersion();
    displayText_ = payload_->getDisplayText();
    hash_ = payload_->getHash();
    return true;
}

void SoftwareUpdateManager::applyPermission(const Snapshot& snapshot) {
    if (snapshot.permission == turnPermission_) {
        return;
    }
    bool complete;
    {
        LockMutex lock(CoreMutex());
        complete = payload_->isComplete() || state_ == ZelSoftwareUpdateStateConfirmed;
    }
    switch (UpdateDecisions::ForPermissionChange(turnPermission_, snapshot.permission, complete)) {
        case UpdateDecisions::Action::Lock: {
            ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl Locking staging file");
            PayloadManager::Staging staging;
            {
                LockMutex lock(CoreMutex());
                staging.connectTimeoutMs = persistent_->getSuStagingConnectTimeoutMs();
                staging.messageTimeoutMs = persistent_->getSuStagingMessageTimeoutMs();
                staging.maxRetryCount = persistent_->getSuStagingMaxRetryCount();
                staging.retryDelayFixedMs = persistent_->getSuStagingRetryDelayFixedMs();
                staging.retryDelayVariedMs = persistent_->getSuStagingRetryDelayVariedMs();
            }
            staging.abort = CoreManager::Instance().getAbortFlag();
            staging.waitUntil = [this](const timespec& deadline) { return waitUntil(deadline); };
            payload_->lockStagingFile(staging);
            break;
        }
        case UpdateDecisions::Action::Unlock:
            ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl Unlocking staging file");
            payload_->unlockStagingFile();
            break;
        case UpdateDecisions::Action::Nothing:
            break;
    }
    turnPermission_ = snapshot.permission;
}

// The state after a turn without failure.
void SoftwareUpdateManager::settle(const Snapshot& snapshot) {
    if (payload_->isComplete() && !reported_) {
        reported_ = true;
        ZEL_LOG(ServiceSu, CategoryState, SeverityInfo,
                "UpdateControl Notifying microservice of success");
        if (!SendTerminalStatus(activeNetwork_, false, "success", "", activeToken_)) {
            payload_->fail("update aborted by cloud");
            failTurn(payload_->getFailReason(), payload_->getFailTime());
            return;
        }
    }
    bool confirm = false;
    {
        LockMutex lock(CoreMutex());
        percent_ = payload_->getPercentDownloaded();
        if (!payload_->isComplete()) {
            state_ = ZelSoftwareUpdateStateAvailable;
        } else if (snapshot.permission == ZelSoftwareUpdatePermissionDownload &&
                   state_ != ZelSoftwareUpdateStateDownloaded) {
            state_ = ZelSoftwareUpdateStateDownloaded;
        } else if (snapshot.permission == ZelSoftwareUpdatePermissionConfirm &&
                   state_ != ZelSoftwareUpdateStateConfirmed) {
            state_ = ZelSoftwareUpdateStateConfirmed;
            confirm = true;
        }
        if (state_ == ZelSoftwareUpdateStateConfirmed) {
            percent_ = 100;
        }
    }
    if (confirm) {
        payload_->unlockStagingFile();
    }
}

void SoftwareUpdateManager::failTurn(const std::string& reason, const std::string& time) {
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl Failing current source");
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo,
            "UpdateControl Notifying microservice of failure");
    SendTerminalStatus(activeNetwork_, true, reason, time, activeToken_);
    ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl Removing current staging file");
    if (payload_) {
        payload_->removeStagingFile();
    } else {
        std::string staging;
        {
            LockMutex lock(CoreMutex());
            staging = config_->getStagingLocation();
        }
        PayloadManager::RemoveStagingFile(staging);
    }
    payload_.reset();
    failedOffer_ = activeOffer_;
    activeOffer_.clear();
    // The host sees the failure once it is reported and the file is gone.
    setState(ZelSoftwareUpdateStateFailed);
}

// Tells the host of what changed and keeps what must survive a restart.
void SoftwareUpdateManager::finishTurn() {
    LockMutex lock(CoreMutex());
    if (state_ != signalledState_ || percent_ != signalledPercent_ ||
        permission_ != signalledPermission_) {
        ZEL_LOG(ServiceSu, CategoryState, SeverityInfo, "UpdateControl Flagging status change");
        signalledState_ = state_;
        signalledPercent_ = percent_;
        signalledPermission_ = permission_;
        logStateInfo();
        CoreManager::Instance().signalStatusChange();
    }
    if (!(values_ == stored_) && !terminating()) {
        ZEL_LOG(ServiceSu, CategoryState, SeverityInfo,
                "UpdateControl Persisting update information");
        if (FileUtil::Store(persistentPath_, SuValues::kBaseName, values_.marshal())) {
            stored_ = values_;
        }
    }
}

}  // namespace Su
}  // namespace Zel
