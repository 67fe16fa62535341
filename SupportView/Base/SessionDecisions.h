#pragma once

#include <time.h>

#include <string>

#include "Core/Base/StateDecisions.h"
#include "SupportView/Base/SessionValues.h"

namespace Zel {
namespace Sv {

// The session manager's decisions as functions of its values: which thread
// does what next, which of them must wake, what state the host sees, and
// what a finished exchange changes. The manager holds the core mutex around
// them and keeps the side effects (waking, logging, the calls themselves).
class SessionDecisions {
public:
    using DelayRule = Core::StateDecisions::DelayRule;

    struct Wakes {
        bool thread[kRoleCount] = {false, false, false};
    };

    // The inactivity time-out: armed from the first watching thread's last
    // activity, disarmed when nothing is watched. True when it has run out.
    static bool TimedOut(SessionValues& values, const timespec& now, unsigned activeTimeoutMs);

    // Gives every thread still Checking its activity, and says which
    // sleeping threads have something to do now.
    static Wakes AssignActivities(SessionValues& values);

    // The state the host sees.
    static unsigned StateFor(const SessionValues& values, bool supportViewEnabled);

    // When a thread in Delay wakes: its last activity plus the retry delay,
    // but no later than a running inactivity time-out.
    static timespec DelayDeadline(const SessionValues& values, ThreadRole role, unsigned fixedMs,
                                  unsigned variedMs, const DelayRule& delay);

    static ThreadRole RoleOf(MicroService service);

    enum class Reaction { Done, ReadAnswer, RetireGidToken, RetireSession, NotSynchronized };
    // A finished exchange made with `callToken` as the session token; status
    // 0 when no answer came. Sets or clears the thread's watch and retry flags.
    static Reaction ApplyStatus(SessionValues& values, MicroService service, long status,
                                const std::string& callToken);

    // The agent stops: a session is suspended (or ended) by one last call,
    // and nothing else is started.
    static void BeginTermination(SessionValues& values, bool pauseOnTerm, bool factoryResetting);
};

}  // namespace Sv
}  // namespace Zel
