#pragma once

#include <time.h>

#include <functional>

#include "Core/Base/VolatileValues.h"

namespace Zel {
namespace Core {

class PersistentValues;

// StateControl's decisions as functions of their inputs: which "da" call
// comes next, when it is due, and what a finished exchange changes. The
// core holds its mutex around them and keeps the side effects (waking the
// thread, the timer file, the request itself).
class StateDecisions {
public:
    // out = base + fixed ms, plus a random part of at most varied ms.
    using DelayRule =
        std::function<void(const timespec& base, timespec& out, unsigned fixed, unsigned varied)>;
    // The agent's rule, on TimeManager.
    static DelayRule StandardDelay();

    // Chooses the next call for a running agent with no call in flight. A
    // lost gid token comes back from its backup; the fourth unsynchronised
    // answer in a row imposes the retry delay. True when the call changed.
    static bool ChooseNextCall(VolatileValues& values, PersistentValues& persistent);

    // When the chosen call is due: after the retry delay, at once, or after
    // the poll delay (at the first schedule after start, the startup delay
    // from now when the poll delay has already run out).
    static void Schedule(VolatileValues& values, const PersistentValues& persistent,
                         const timespec& now, const DelayRule& delay);

    // A finished exchange: `status` is 0 when no answer came. `readBody`
    // applies a 2xx body and says whether it could be used; an answer that
    // could not is retried like a failed one. 422 retires the identity, 428
    // the synchronisation; a setting changed meanwhile undoes the latter too.
    static void ApplyExchange(long status, const std::function<bool()>& readBody,
                              VolatileValues& values, PersistentValues& persistent);
};

}  // namespace Core
}  // namespace Zel
