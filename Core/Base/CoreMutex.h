#pragma once

#include "Core/Platform/Mutex.h"

namespace Zel {
namespace Core {

// The one mutex that guards the core objects, the event queue and the
// services' shared state. It is a function-local static of its own so that
// singletons that wait on it never need each other constructed first, and it
// is never destroyed: the detached shut-down thread may still release it
// while a host that saw the agent stop is already exiting.
inline Mutex& CoreMutex() {
    static Mutex* mutex = new Mutex;
    return *mutex;
}

}  // namespace Core
}  // namespace Zel
