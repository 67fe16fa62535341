#pragma once

#include "zel.h"

namespace Zel {
namespace Sv {

// What SessionControl must ask the "sv" service next; each value is also the
// number of the micro-service that carries it out.
enum class SessionRequest : unsigned {
    Initialize = 0,
    Terminate = 1,
    Suspend = 2,
    Resume = 3,
    None = 4
};

// What a control thread does on its next pass, as cascadeStateChanges decides.
enum class ThreadActivity : unsigned { Checking = 0, Busy = 1, Idle = 2, Delay = 3 };

// The calls SupportView makes to the "sv" service.
enum class MicroService : unsigned {
    InitializeSession = 0,
    TerminateSession = 1,
    SuspendSession = 2,
    ResumeSession = 3,
    GetCommand = 4,
    PutCommand = 5,
};

const char* ZelSessionStateToString(unsigned state);
const char* SessionRequestToString(SessionRequest request);
const char* ThreadActivityToString(ThreadActivity activity);
const char* MicroServiceToString(MicroService service);
// URL path below "/api/v1/".
const char* MicroServicePath(MicroService service);

}  // namespace Sv
}  // namespace Zel
