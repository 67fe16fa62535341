#include "Core/Platform/TimedSem.h"

#include <unistd.h>

#include <cerrno>

#include "Core/Platform/Logger.h"

namespace {
constexpr const char* kLogSource = "Platform/TimedSem";
}  // namespace

namespace Zel {
namespace Core {

TimedSem::TimedSem(Mutex& mutex) : mutex_(mutex) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    // Deadlines are wall-clock times.
    pthread_condattr_setclock(&attr, CLOCK_REALTIME);
    pthread_cond_init(&cond_, &attr);
    pthread_condattr_destroy(&attr);
}

TimedSem::~TimedSem() {
    pthread_cond_destroy(&cond_);
}

void TimedSem::lock() {
    mutex_.lock();
}

void TimedSem::unlock() {
    mutex_.unlock();
}

void TimedSem::reset() {
    pthread_cond_signal(&cond_);
    signalled_ = true;
}

int TimedSem::wait(const timespec* deadline) {
    if (signalled_) {
        signalled_ = false;
        return 0;
    }
    for (;;) {
        int error = deadline != nullptr ? pthread_cond_timedwait(&cond_, mutex_.native(), deadline)
                                        : pthread_cond_wait(&cond_, mutex_.native());
        if (error == ETIMEDOUT) {
            signalled_ = false;
            return 1;
        }
        if (error != 0) {
            // End the wait as if reset; the pause keeps a wait that keeps
            // failing from spinning, and is taken without the mutex so that
            // nobody else waits for it.
            signalled_ = true;
            ZEL_LOG(ServiceCore, CategoryState, SeverityError, "TimedSem Problem: %d %d.%09ds",
                    error, deadline != nullptr ? static_cast<int>(deadline->tv_sec) : 0,
                    deadline != nullptr ? static_cast<int>(deadline->tv_nsec) : 0);
            UnlockMutex unlocked(mutex_);
            sleep(1);
        }
        if (signalled_) {
            signalled_ = false;
            return 0;
        }
    }
}

}  // namespace Core
}  // namespace Zel
