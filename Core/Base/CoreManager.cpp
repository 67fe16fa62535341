#include "Core/Base/CoreManager.h"

#include <cstdlib>
#include <cstring>
#include <exception>

#include "Core/Base/CoreConfig.h"
#include "Core/Base/EventManager.h"
#include "Core/Base/PersistedFiles.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Base/ServiceManager.h"
#include "Core/Platform/FunctionTrace.h"
#include "Core/Platform/Injector.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/OpenSsl.h"
#include "Core/Platform/TimeManager.h"
#include "Core/Project/DeviceValues.h"
#include "Core/Project/ProductIdentity.h"
#include "Drmp/Base/DrmpManager.h"
#include "SoftwareUpdate/Base/SoftwareUpdateManager.h"
#include "SupportView/Base/SupportViewManager.h"
#include "zel.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Base/CoreManager";

char* duplicate(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) {
        std::memcpy(copy, text.c_str(), text.size() + 1);
    }
    return copy;
}

void release(char*& text) {
    std::free(text);
    text = nullptr;
}
}  // namespace

const char* CoreManager::DeviceAgentStateToString(unsigned state) {
    switch (state) {
        case Uninitialized:
            return "Uninitialized";
        case Initialized:
            return "Initialized";
        case Terminating:
            return "Terminating";
        case FactoryResetting:
            return "FactoryResetting";
        default:
            return "Unknown";
    }
}

// Never destroyed, for the same reason as the core mutex: process exit must
// not tear down what the detached shut-down thread may still be using.
CoreManager& CoreManager::Instance() {
    static CoreManager* instance = new CoreManager;
    return *instance;
}

// Services start in this order and stop in the same order.
CoreManager::CoreManager()
    : statusSem_(false, CoreMutex()),
      managers_{&EventManager::Instance(), &Sv::SupportViewManager::Instance(),
                &Su::SoftwareUpdateManager::Instance(), &Drmp::DrmpManager::Instance()} {}

unsigned CoreManager::initialize(const char* identity, const char* config, const char* device) {
    KeepOpenSslPastExit();
    LockMutex lock(CoreMutex());
    if (state_ == Initialized) {
        return ZelResultAlreadyInitialized;
    }
    if (terminatingOrResetting()) {
        return ZelResultBusy;
    }
    if (!TimeManager::Instance().isGoodTime()) {
        return ZelResultBadTime;
    }
    // All or nothing: until every core object stands, the agent stays
    // Uninitialized and a failure leaves nothing behind.
    if (!buildCoreObjects(identity, config, device)) {
        return ZelResultBadArgument;
    }

    // OpenSSL 3 initialises itself on first use, so skipSslCryptoInit has
    // nothing left to skip; the curl flag covers both ends of libcurl's life.
    Http::Initialize(!config_->getSkipCurlGlobalInit(), !config_->getSkipCurlGlobalInit());
    abort_ = false;
    if (!ThreadUtil::Start(stateThread_, StateControl, this, "StateControl")) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityFatal, "ZelInit() cannot start StateControl");
        Http::Terminate();
        releaseCoreObjects();
        return ZelResultBadArgument;
    }
    state_ = Initialized;
    try {
        ServiceContext context{configText_.c_str(), config_.get(), persistent_.get()};
        for (ServiceManager* manager : managers_) {
            manager->initialize(context);
        }
        // The host learns of the start through the status as of every other change.
        signalStatusChange();
        evaluateStateChanges();
        logStateInfo();
    } catch (const std::exception& error) {
        // Threads run by now: stop them the ordinary way.
        ZEL_LOG(ServiceCore, CategoryState, SeverityFatal, "ZelInit() failed: %s", error.what());
        beginTermination(false);
        return ZelResultBadArgument;
    }
    return ZelResultSuccess;
}

bool CoreManager::buildCoreObjects(const char* identity, const char* config, const char* device) {
    try {
        configText_ = config;
        config_ = std::make_unique<CoreConfig>(config);
        identity_ = std::make_unique<ProductIdentity>(identity);
        device_ = std::make_unique<DeviceValues>(device, config_.get());
        persistent_ =
            std::make_unique<PersistentValues>(identity_.get(), config_.get(), device_.get());
        volatile_ = std::make_unique<VolatileValues>();
        stateSem_ = std::make_unique<TimedSem>(CoreMutex());
        readTimerFile();
        return true;
    } catch (const std::exception& error) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityFatal, "ZelInit() failed: %s", error.what());
    } catch (...) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityFatal, "ZelInit() failed");
    }
    releaseCoreObjects();
    return false;
}

void CoreManager::releaseCoreObjects() {
    identity_.reset();
    device_.reset();
    persistent_.reset();
    volatile_.reset();
    stateSem_.reset();
    config_.reset();
    configText_.clear();
    state_ = Uninitialized;
    // The next ZelInit brings its own loggers and injectors.
    Injector::Instance().terminate();
    Logger::Instance().terminate();
}

unsigned CoreManager::terminate(bool factoryReset) {
    LockMutex lock(CoreMutex());
    if (state_ == Uninitialized) {
        return ZelResultNotInitialized;
    }
    if (terminatingOrResetting()) {
        return ZelResultBusy;
    }
    beginTermination(factoryReset);
    return ZelResultSuccess;
}

// Core mutex held. Everything here only sets flags and wakes threads; the
// waiting happens on TerminateThread.
void CoreManager::beginTermination(bool factoryReset) {
    state_ = factoryReset ? FactoryResetting : Terminating;
    signalStatusChange();

    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "StateControl delay being reset");
    stateSem_->reset();
    // An exchange in flight is abandoned rather than waited for.
    abort_ = true;
    Http::WakeAll();
    Injector::Instance().wake();

    for (ServiceManager* manager : managers_) {
        manager->terminateBegin();
    }
    evaluateStateChanges();

    if (state_ == FactoryResetting) {
        persistent_->drop();
        DropPersistedFiles(config_->getPersistentPath());
    }

    if (!ThreadUtil::Start(terminateThread_, TerminateThread, this, "TerminateThread")) {
        // Better to make the host wait than to stay Terminating for ever.
        ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                "Cannot start TerminateThread, stopping on the caller's thread");
        UnlockMutex unlocked(CoreMutex());
        finishTermination();
        return;
    }
    ThreadUtil::Detach(terminateThread_);
}

void* CoreManager::TerminateThread(void* self) {
    static_cast<CoreManager*>(self)->finishTermination();
    return nullptr;
}

void CoreManager::finishTermination() {
    for (ServiceManager* manager : managers_) {
        const char* message = manager->waitMessage();
        if (message != nullptr) {
            ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "%s", message);
        }
        manager->terminateEnd();
    }
    ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "Waiting for StateControl to join");
    ThreadUtil::Join(stateThread_);

    LockMutex lock(CoreMutex());
    ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "Performing Core cleanup");
    Http::Terminate();
    signalStatusChange();
    releaseCoreObjects();
}

unsigned CoreManager::factoryResetOffline(const char* config) {
    LockMutex lock(CoreMutex());
    if (state_ != Uninitialized) {
        return ZelResultAlreadyInitialized;
    }
    state_ = FactoryResetting;
    try {
        CoreConfig temporary(config);
        PersistentBase(&temporary).drop();
        DropPersistedFiles(temporary.getPersistentPath());
        // The services drop their own state, as a reset of a running agent does.
        std::string text = config;
        ServiceContext context{text.c_str(), &temporary, nullptr};
        for (ServiceManager* manager : managers_) {
            manager->factoryResetOffline(context);
        }
    } catch (const std::exception& error) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityFatal, "ZelFactoryResetOffline() failed: %s",
                error.what());
    }
    state_ = Uninitialized;
    // The temporary configuration may have set up loggers and injectors.
    Injector::Instance().terminate();
    Logger::Instance().terminate();
    return ZelResultSuccess;
}

// A changed setting must reach the cloud: the next call becomes a
// SynchronizeCoreState. A call already in flight carries the old values, so
// its answer must not count as synchronised.
void CoreManager::noteSettingChanged() {
    persistent_->setSynchronized(false);
    if (volatile_->busy) {
        volatile_->pending = true;
    }
}

unsigned CoreManager::enableTestMode() {
    LockMutex lock(CoreMutex());
    if (state_ == Uninitialized) {
        return ZelResultNotInitialized;
    }
    if (persistent_->setTestMode(true)) {
        signalStatusChange();
        noteSettingChanged();
    }
    evaluateStateChanges();
    return ZelResultSuccess;
}

unsigned CoreManager::setOemMsg(const char* message) {
    LockMutex lock(CoreMutex());
    if (state_ == Uninitialized) {
        return ZelResultNotInitialized;
    }
    if (persistent_->setOemMsg(message)) {
        noteSettingChanged();
    }
    evaluateStateChanges();
    return ZelResultSuccess;
}

unsigned CoreManager::checkForSoftwareUpdate() {
    LockMutex lock(CoreMutex());
    if (state_ == Uninitialized) {
        return ZelResultNotInitialized;
    }
    if (persistent_->setSuCheckForSoftwareUpdate(true)) {
        noteSettingChanged();
    }
    evaluateStateChanges();
    return ZelResultSuccess;
}

void CoreManager::signalStatusChange() {
    statusSem_.giveLocked();
}

void CoreManager::setNotSynchronized() {
    if (persistent_ && persistent_->setSynchronized(false)) {
        evaluateStateChanges();
    }
}

void CoreManager::retireGidToken() {
    if (persistent_ && persistent_->setGidToken("")) {
        evaluateStateChanges();
    }
}

unsigned CoreManager::getStatus(unsigned method, ZelStatus* status) {
    LockMutex lock(CoreMutex());
    if (method == ZelStatusMethodWaitForChange) {
        statusSem_.takeLocked();
    }
    std::memset(status, 0, sizeof *status);
    status->sessionState = 7;
    status->updateSource = 1;
    status->consentState = ZelConsentStateUnsupported;
    unsigned state = state_;
    if (state == Uninitialized || !persistent_) {
        return ZelResultSuccess;
    }
    status->state = state;
    status->testMode = persistent_->getTestMode() ? 1 : 0;
    status->sdkVersion = duplicate(persistent_->getSdkVersion());
    status->deviceId = duplicate(persistent_->getDeviceId());
    status->opid = duplicate(persistent_->getCertOpid());
    status->cloud = duplicate(persistent_->getCertInstance());
    status->allowedDataItemIds = duplicate("");
    status->consentUrl = duplicate(persistent_->getDaConsentUrl());
    status->swVersion = duplicate(device_->getSwVersion());
    for (ServiceManager* manager : managers_) {
        manager->getStatus(*status);
    }
    return ZelResultSuccess;
}

unsigned CoreManager::freeStatus(ZelStatus* status) {
    release(status->sdkVersion);
    release(status->deviceId);
    release(status->opid);
    release(status->cloud);
    release(status->allowedDataItemIds);
    release(status->consentUrl);
    release(status->sessionInfo);
    release(status->swVersion);
    release(status->updateVersion);
    release(status->updateDisplayText);
    release(status->updateStagingFile);
    release(status->updateHash);
    return ZelResultSuccess;
}

unsigned CoreManager::supervisorLog(unsigned severity, const std::string& text) {
    if (severity < SeverityFatal || severity > SeverityTrace) {
        return ZelResultNotInitialized;
    }
    ZEL_LOG(ServiceCore, CategorySupervisor, static_cast<int>(severity), "%s", text.c_str());
    return ZelResultSuccess;
}

void CoreManager::logStateInfo() const {
    if (!persistent_) {
        return;
    }
    ZEL_LOG(ServiceCore, CategoryState, SeverityInfo,
            "Core State Change:  synch=%c gid=%c std<%02u%% seqnum=%u/%u",
            persistent_->getSynchronized() ? 'Y' : 'N',
            persistent_->getGidToken().empty() ? 'N' : 'Y',
            persistent_->getDsAggressiveQueuePercentage(), persistent_->getOpidSeqNum(),
            persistent_->getGidSeqNum());
}

void CoreManager::logStateDebug() const {
    if (!Logger::Instance().test(ServiceCore, CategoryState, SeverityDebug)) {
        return;
    }
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "state                                : %s",
            DeviceAgentStateToString(state_));
    if (config_) {
        config_->logStateDebug();
    }
    if (device_) {
        device_->logStateDebug();
    }
    if (persistent_) {
        persistent_->logStateDebug();
    }
    if (volatile_) {
        volatile_->logStateDebug(TimeManager::Instance().now());
    }
}

}  // namespace Core
}  // namespace Zel
