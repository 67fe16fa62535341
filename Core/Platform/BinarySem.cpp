#include "Core/Platform/BinarySem.h"

#include <unistd.h>

#include "Core/Platform/Logger.h"

namespace {
constexpr const char* kLogSource = "Platform/BinarySem";
}  // namespace

namespace Zel {
namespace Core {

BinarySem::BinarySem(bool initial, Mutex& mutex) : signalled_(initial), mutex_(mutex) {
    pthread_cond_init(&cond_, nullptr);
}

BinarySem::~BinarySem() {
    pthread_cond_destroy(&cond_);
}

void BinarySem::giveLocked() {
    signalled_ = true;
    pthread_cond_signal(&cond_);
}

void BinarySem::takeLocked() {
    for (;;) {
        if (signalled_) {
            signalled_ = false;
            return;
        }
        int error = pthread_cond_wait(&cond_, mutex_.native());
        if (error != 0) {
            // End the wait as if given; the pause keeps a wait that keeps
            // failing from spinning.
            signalled_ = true;
            ZEL_LOG(ServiceCore, CategoryState, SeverityError, "BinarySem Problem: %d", error);
            UnlockMutex unlocked(mutex_);
            sleep(1);
        }
    }
}

void BinarySem::giveUnlocked() {
    LockMutex lock(mutex_);
    giveLocked();
}

void BinarySem::takeUnlocked() {
    LockMutex lock(mutex_);
    takeLocked();
}

}  // namespace Core
}  // namespace Zel
