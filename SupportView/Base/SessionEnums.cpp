#include "SupportView/Base/SessionEnums.h"

#include <cstddef>

namespace Zel {
namespace Sv {

namespace {
template <std::size_t N>
const char* lookup(const char* const (&texts)[N], unsigned value) {
    return value < N ? texts[value] : "Unknown";
}
}  // namespace

const char* ZelSessionStateToString(unsigned state) {
    static const char* const texts[] = {"Initializing", "Terminating", "Suspending",
                                        "Resuming",     "Ready",       "Joined",
                                        "None",         "Disabled",    "Unsupported"};
    return lookup(texts, state);
}

const char* SessionRequestToString(SessionRequest request) {
    static const char* const texts[] = {"Initialize", "Terminate", "Suspend", "Resume", "None"};
    return lookup(texts, static_cast<unsigned>(request));
}

const char* ThreadActivityToString(ThreadActivity activity) {
    static const char* const texts[] = {"Checking", "Busy", "Idle", "Delay"};
    return lookup(texts, static_cast<unsigned>(activity));
}

const char* MicroServiceToString(MicroService service) {
    static const char* const texts[] = {"InitializeSession", "TerminateSession", "SuspendSession",
                                        "ResumeSession",     "GetCommand",       "PutCommand"};
    return lookup(texts, static_cast<unsigned>(service));
}

const char* MicroServicePath(MicroService service) {
    static const char* const paths[] = {"sv/session/initialize", "sv/session/terminate",
                                        "sv/session/suspend",    "sv/session/resume",
                                        "sv/command/get",        "sv/command/put"};
    return lookup(paths, static_cast<unsigned>(service));
}

}  // namespace Sv
}  // namespace Zel
