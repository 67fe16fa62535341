#pragma once

#include <time.h>

#include "Core/Base/MicroService.h"

namespace Zel {
namespace Core {

// StateControl's schedule: kept in memory only (lastCall also lives in the
// "daTime" file), guarded by the core mutex.
struct VolatileValues {
    bool pending = false;      // a setting changed while a call was in flight
    bool busy = false;         // StateControl is between "calling" and "processed"
    bool evaluate = false;     // a call has just completed: recompute the schedule
    bool retry = false;        // the next call waits for the retry delay
    bool startupDelay = true;  // the first schedule after start is still to be made
    unsigned badSynchs = 0;    // unsynchronised SynchronizeCoreState answers in a row
    timespec lastCall{0, 0};
    timespec nextCall{0, 0};
    MicroService nextDws = GetDeviceIdentity;

    void logStateDebug(const timespec& now) const;
};

}  // namespace Core
}  // namespace Zel
