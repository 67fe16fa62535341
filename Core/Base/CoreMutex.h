#pragma once

#include "Core/Platform/Mutex.h"

namespace Zel {
namespace Core {

// The one mutex that guards the core objects, the event queue and the
// services' shared state. It is a function-local static of its own so that
// singletons that wait on it never need each other constructed first.
inline Mutex& CoreMutex() {
    static Mutex mutex;
    return mutex;
}

}  // namespace Core
}  // namespace Zel
