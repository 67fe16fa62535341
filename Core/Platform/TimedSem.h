#pragma once

#include <pthread.h>
#include <time.h>

#include "Core/Platform/Mutex.h"

namespace Zel {
namespace Core {

// A one-slot semaphore with an absolute wall-clock deadline, on which control
// threads sleep until their next call is due or another thread wakes them.
// It waits on the external mutex of the object that owns it.
class TimedSem {
public:
    explicit TimedSem(Mutex& mutex);
    ~TimedSem();
    TimedSem(const TimedSem&) = delete;
    TimedSem& operator=(const TimedSem&) = delete;

    void lock();
    void unlock();

    // Wakes the waiter at once, or makes the next wait return at once. Caller
    // holds the mutex.
    void reset();
    // Caller holds the mutex. 0 when woken by reset, 1 when `deadline`
    // (CLOCK_REALTIME) passed; a null deadline waits without limit.
    int wait(const timespec* deadline);

private:
    Mutex& mutex_;
    bool signalled_ = false;
    pthread_cond_t cond_;
};

}  // namespace Core
}  // namespace Zel
