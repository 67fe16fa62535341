#include "Drmp/Base/DrmpManager.h"

#include "Core/Base/CoreConfig.h"
#include "Core/Base/CoreManager.h"
#include "Core/Base/CoreMutex.h"
#include "Core/Base/DaTimer.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"
#include "Drmp/Project/DrmpCustom.h"
#include "zel.h"

namespace Zel {
namespace Drmp {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/DrmpManager";

bool later(const timespec& a, const timespec& b) {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

int stateNumber(const std::string& state) {
    if (state == "available") {
        return DrmpCustom::ObjectStateAvailable;
    }
    if (state == "notavailable") {
        return DrmpCustom::ObjectStateNotAvailable;
    }
    return DrmpCustom::ObjectStatePending;
}
}  // namespace

const char* const DrmpManager::kTimeBaseName = "drmpTime";

const char* DrmpManager::MicroServiceToString(unsigned service) {
    switch (service) {
        case Token:
            return "token";
        case Work:
            return "work";
        default:
            return "Unknown";
    }
}

// Never destroyed, like the core it belongs to.
DrmpManager& DrmpManager::Instance() {
    static DrmpManager* instance = new DrmpManager;
    return *instance;
}

bool DrmpManager::running() const {
    return config_ && values_ &&
           CoreManager::Instance().getDeviceAgentState() == CoreManager::Initialized;
}

bool DrmpManager::haveIdentity() const {
    PersistentValues* core = CoreManager::Instance().getCorePersistentPtr();
    return core != nullptr && !core->getGidToken().empty();
}

void DrmpManager::cascadeStateChanges() {
    if (waitingForIdentity_ && haveIdentity()) {
        waitingForIdentity_ = false;
        controlSem_->reset();
    }
}

void DrmpManager::initialize(const ServiceContext& context) {
    config_ = std::make_unique<DrmpConfig>(context.configText);
    DrmpCustom::Configure(*config_);
    values_ = std::make_unique<DrmpPersistentValues>(context.config);
    values_->load();
    persistentPath_ = context.config->getPersistentPath();
    readTimeFile();
    controlSem_ = std::make_unique<TimedSem>(CoreMutex());
    statusSem_ = std::make_unique<TimedSem>(CoreMutex());
    terminating_ = false;
    checkNow_ = false;
    statusPending_ = !values_->getStatus().empty();
    waitingForIdentity_ = false;
    ThreadUtil::Start(controlThread_, DrmpControl, this, "DrmpControl");
    ThreadUtil::Start(statusThread_, StatusControl, this, "StatusControl");
}

// A time that reads back but lies in the future would hold the first call
// back for as long; the clock's start is the reference then.
void DrmpManager::readTimeFile() {
    haveLastWork_ = false;
    std::string name = persistentPath_ + kTimeBaseName;
    std::string content;
    timespec stored{};
    auto usable = [&](const std::string& text) {
        if (DaTimer::Parse(text, stored)) {
            return true;
        }
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityError, "Problem JSON parsing %s", name.c_str());
        return false;
    };
    if (!FileUtil::Load(persistentPath_, kTimeBaseName, content, usable)) {
        return;
    }
    if (later(stored, TimeManager::Instance().now())) {
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityError,
                "Problem reading %s, last work call is in the future. Defaulting to clock start "
                "as reference.",
                name.c_str());
        return;
    }
    lastWork_ = stored;
    haveLastWork_ = true;
}

void DrmpManager::terminateBegin() {
    terminating_ = true;
    if (controlSem_) {
        controlSem_->reset();
        statusSem_->reset();
    }
}

void DrmpManager::terminateEnd() {
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "Waiting for DrmpControl to join");
    ThreadUtil::Join(controlThread_);
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "Waiting for StatusControl to join");
    ThreadUtil::Join(statusThread_);
    LockMutex lock(CoreMutex());
    if (values_ && !values_->isPersisted() &&
        CoreManager::Instance().getDeviceAgentState() != CoreManager::FactoryResetting) {
        values_->store();
    }
    values_.reset();
    config_.reset();
}

void DrmpManager::factoryResetOffline(const ServiceContext& context) {
    FileUtil::Drop(context.config->getPersistentPath(), "drmpValues");
    FileUtil::Drop(context.config->getPersistentPath(), "drmpToken");
    FileUtil::Drop(context.config->getPersistentPath(), kTimeBaseName);
}

unsigned DrmpManager::checkForDrmpUpdate() {
    LockMutex lock(CoreMutex());
    if (!running() || terminating_) {
        return ZelResultNotInitialized;
    }
    checkNow_ = true;
    controlSem_->reset();
    return ZelResultSuccess;
}

void* DrmpManager::StatusControl(void* self) {
    static_cast<DrmpManager*>(self)->statusControl();
    return nullptr;
}

// Publishes the objects' states whenever the cloud's list of them changes.
void DrmpManager::statusControl() {
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "StatusControl started");
    LockMutex lock(CoreMutex());
    for (;;) {
        while (!statusPending_ && !terminating_) {
            ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "StatusControl waiting");
            statusSem_->wait(nullptr);
        }
        if (terminating_) {
            break;
        }
        statusPending_ = false;
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "StatusControl running");
        std::list<DrmpCustom::ObjectStatus> statuses;
        for (const DrmpPersistentValues::Status& entry : values_->getStatus()) {
            statuses.push_back({entry.name, stateNumber(entry.state)});
        }
        {
            UnlockMutex unlocked(CoreMutex());
            DrmpCustom::UpdateObjectStatus(statuses);
        }
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "StatusControl looping");
    }
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "StatusControl terminated");
}

}  // namespace Drmp
}  // namespace Zel
