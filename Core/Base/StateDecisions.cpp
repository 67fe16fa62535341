#include "Core/Base/StateDecisions.h"

#include "Core/Base/PersistentValues.h"
#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Base/CoreManager";
}  // namespace

StateDecisions::DelayRule StateDecisions::StandardDelay() {
    return [](const timespec& base, timespec& out, unsigned fixed, unsigned varied) {
        TimeManager::Instance().updateTimestamp(base, out, fixed, varied);
    };
}

bool StateDecisions::ChooseNextCall(VolatileValues& values, PersistentValues& persistent) {
    MicroService previous = values.nextDws;
    if (persistent.getSynchronized() && persistent.getDaConsentState() != ConsentStateCompleted) {
        values.nextDws = CheckForNotification;
        values.badSynchs = 0;
        return values.nextDws != previous;
    }
    values.nextDws = SynchronizeCoreState;
    if (persistent.getGidToken().empty()) {
        if (persistent.getBackupToken().empty()) {
            values.nextDws = GetDeviceIdentity;
            values.badSynchs = 0;
            return values.nextDws != previous;
        }
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "Token Recovery Activated");
        persistent.setGidToken(persistent.getBackupToken());
    }
    if (values.badSynchs >= 3) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityInfo,
                "Too many SynchronizeCoreState calls in a row, delaying");
        values.badSynchs = 0;
        values.retry = true;
    }
    return values.nextDws != previous;
}

void StateDecisions::Schedule(VolatileValues& values, const PersistentValues& persistent,
                              const timespec& now, const DelayRule& delay) {
    if (values.retry) {
        values.retry = false;
        delay(values.lastCall, values.nextCall, persistent.getDaRetryDelayFixedMs(),
              persistent.getDaRetryDelayVariedMs());
    } else if (values.nextDws != CheckForNotification) {
        values.nextCall = now;
    } else if (values.startupDelay) {
        values.startupDelay = false;
        delay(values.lastCall, values.nextCall, persistent.getDaPollDelayFixedMs(),
              persistent.getDaPollDelayVariedMs());
        if (now.tv_sec <= values.nextCall.tv_sec) {
            ZEL_LOG(ServiceCore, CategoryState, SeverityDebug,
                    "Using standard delay on core startup");
        } else {
            ZEL_LOG(ServiceCore, CategoryState, SeverityDebug,
                    "Using startup delay on core startup");
            values.lastCall = now;
            delay(now, values.nextCall, persistent.getDaStartupDelayFixedMs(),
                  persistent.getDaStartupDelayVariedMs());
        }
    } else {
        delay(values.lastCall, values.nextCall, persistent.getDaPollDelayFixedMs(),
              persistent.getDaPollDelayVariedMs());
    }
}

void StateDecisions::ApplyExchange(long status, const std::function<bool()>& readBody,
                                   VolatileValues& values, PersistentValues& persistent) {
    values.busy = false;
    values.evaluate = true;
    if (status > 0 && status < 300) {
        // An answer we cannot use is treated like a failed exchange, so a
        // confused server is not called again at once.
        if (!readBody()) {
            values.retry = true;
        }
    } else {
        values.retry = true;
        if (status == 422) {
            persistent.setGidToken("");
            persistent.setOpidSeqNum(0);
            persistent.setGidSeqNum(0);
            persistent.setSynchronized(false);
        } else if (status == 428) {
            persistent.setSynchronized(false);
        }
    }
    // A setting changed while the call was in flight: that call carried the
    // old values, so the cloud has yet to see the new ones.
    if (values.pending) {
        values.pending = false;
        persistent.setSynchronized(false);
    }
}

}  // namespace Core
}  // namespace Zel
