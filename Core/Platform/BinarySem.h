#pragma once

#include <pthread.h>

#include "Core/Platform/Mutex.h"

namespace Zel {
namespace Core {

// A one-slot semaphore without time limit. It waits on the mutex of the object
// whose state it guards; the semaphore does not own that mutex.
class BinarySem {
public:
    BinarySem(bool initial, Mutex& mutex);
    ~BinarySem();
    BinarySem(const BinarySem&) = delete;
    BinarySem& operator=(const BinarySem&) = delete;

    // Caller holds the mutex.
    void giveLocked();
    void takeLocked();
    // Take the mutex for the caller.
    void giveUnlocked();
    void takeUnlocked();

private:
    bool signalled_;
    Mutex& mutex_;
    pthread_cond_t cond_;
};

}  // namespace Core
}  // namespace Zel
