// CoreManager's StateControl thread: when the next "da" call is due, and
// the loop that makes it.
#include "Core/Base/CoreConfig.h"
#include "Core/Base/CoreManager.h"
#include "Core/Base/DaTimer.h"
#include "Core/Base/PersistentValues.h"
#include "Core/Base/ServiceManager.h"
#include "Core/Base/StateDecisions.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Base/CoreManager";

// Time is read through TimeManager only, so a test clock reaches every schedule.
timespec now() {
    return TimeManager::Instance().now();
}

bool later(const timespec& a, const timespec& b) {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

// Milliseconds from `from` to `to`, 0 when `to` is not later.
long long millisUntil(const timespec& from, const timespec& to) {
    if (!later(to, from)) {
        return 0;
    }
    return (static_cast<long long>(to.tv_sec) - from.tv_sec) * 1000 +
           (to.tv_nsec - from.tv_nsec) / 1000000;
}
}  // namespace

void CoreManager::evaluateStateChanges() {
    if (!volatile_ || !persistent_) {
        return;
    }
    VolatileValues& values = *volatile_;
    PersistentValues& persistent = *persistent_;
    bool recompute = false;

    if (state_ == Initialized && !values.busy) {
        bool changed = StateDecisions::ChooseNextCall(values, persistent);
        if (values.evaluate) {
            values.evaluate = false;
            recompute = true;
        } else if (changed) {
            ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "StateControl delay being reset");
            stateSem_->reset();
            recompute = true;
        }
    }
    if (recompute) {
        if (state_ != FactoryResetting) {
            writeTimerFile();
        }
        StateDecisions::Schedule(values, persistent, now(), StateDecisions::StandardDelay());
    }

    bool consentUrlChanged = persistent.testDaConsentUrl();
    bool consentStateChanged = persistent.testDaConsentState();
    if (consentUrlChanged || consentStateChanged) {
        signalStatusChange();
    }
    for (ServiceManager* manager : managers_) {
        manager->cascadeStateChanges();
    }
    // After a factory reset has dropped the files nothing may write them again.
    if (!persistent.isPersisted() && state_ != FactoryResetting) {
        logStateInfo();
        persistent.store();
    }
    logStateDebug();
}

void CoreManager::writeTimerFile() const {
    FileUtil::Store(config_->getPersistentPath(), DaTimer::kBaseName,
                    DaTimer::Format(volatile_->lastCall));
}

// A timer file that reads back intact but holds no usable time is deleted
// like a corrupt one, so that it cannot poison every start.
void CoreManager::readTimerFile() {
    std::string name = config_->getPersistentPath() + DaTimer::kBaseName;
    std::string content;
    timespec stored{};
    auto usable = [&](const std::string& text) {
        if (DaTimer::Parse(text, stored)) {
            return true;
        }
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Problem JSON parsing %s", name.c_str());
        return false;
    };
    if (!FileUtil::Load(config_->getPersistentPath(), DaTimer::kBaseName, content, usable)) {
        return;
    }
    if (later(stored, now())) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError,
                "Problem reading %s, lastCall is in the future. Defaulting to clock start as "
                "reference.",
                name.c_str());
        return;
    }
    volatile_->lastCall = stored;
}

void* CoreManager::StateControl(void* self) {
    static_cast<CoreManager*>(self)->stateControl();
    return nullptr;
}

void CoreManager::stateControl() {
    ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "StateControl started");
    // One request object for the thread's life keeps its connection open
    // between calls.
    Http::Request request;
    request.reusable = true;
    LockMutex lock(CoreMutex());
    for (;;) {
        bool due = false;
        while (!terminatingOrResetting() && !due) {
            timespec current = now();
            if (!later(volatile_->nextCall, current)) {
                due = true;
                break;
            }
            long long wait = millisUntil(current, volatile_->nextCall);
            ZEL_LOG(ServiceCore, CategoryState, SeverityInfo,
                    "StateControl delaying %i.%03i seconds before running %s",
                    static_cast<int>(wait / 1000), static_cast<int>(wait % 1000),
                    MicroServiceToString(volatile_->nextDws));
            // A copy: host threads may reschedule while we sleep, and the
            // wait must not read a deadline that is being rewritten.
            timespec deadline = volatile_->nextCall;
            if (stateSem_->wait(&deadline) == 0) {
                ZEL_LOG(ServiceCore, CategoryState, SeverityDebug,
                        "StateControl delay was previously reset");
                continue;
            }
            due = true;
        }
        if (terminatingOrResetting()) {
            break;
        }
        MicroService service = volatile_->nextDws;
        ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "StateControl calling %s",
                MicroServiceToString(service));
        volatile_->busy = true;
        volatile_->lastCall = now();
        prepMicroService(service, request);
        Http::Response response;
        bool performed;
        {
            UnlockMutex unlocked(CoreMutex());
            performed = Http::Perform(request, response);
        }
        if (terminatingOrResetting()) {
            break;
        }
        postMicroService(service, performed, response);
    }
    ZEL_LOG(ServiceCore, CategoryState, SeverityInfo, "StateControl terminated");
    UnlockMutex unlocked(CoreMutex());
    Http::Cleanup(request);
}

}  // namespace Core
}  // namespace Zel
