#pragma once

#include <pthread.h>

namespace Zel {
namespace Core {

// A plain, non-recursive mutex. Semaphores that guard an object's state wait
// on the mutex that object owns, so the native handle is reachable.
class Mutex {
public:
    Mutex() { pthread_mutex_init(&mutex_, nullptr); }
    ~Mutex() { pthread_mutex_destroy(&mutex_); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() { pthread_mutex_lock(&mutex_); }
    void unlock() { pthread_mutex_unlock(&mutex_); }
    pthread_mutex_t* native() { return &mutex_; }

private:
    pthread_mutex_t mutex_;
};

class LockMutex {
public:
    explicit LockMutex(Mutex& mutex) : mutex_(mutex) { mutex_.lock(); }
    ~LockMutex() { mutex_.unlock(); }
    LockMutex(const LockMutex&) = delete;
    LockMutex& operator=(const LockMutex&) = delete;

private:
    Mutex& mutex_;
};

// Releases a held mutex for the length of a scope (an HTTP exchange, say) and
// takes it back at the end, whatever way the scope is left.
class UnlockMutex {
public:
    explicit UnlockMutex(Mutex& mutex) : mutex_(mutex) { mutex_.unlock(); }
    ~UnlockMutex() { mutex_.lock(); }
    UnlockMutex(const UnlockMutex&) = delete;
    UnlockMutex& operator=(const UnlockMutex&) = delete;

private:
    Mutex& mutex_;
};

class RWLock {
public:
    RWLock() { pthread_rwlock_init(&lock_, nullptr); }
    ~RWLock() { pthread_rwlock_destroy(&lock_); }
    RWLock(const RWLock&) = delete;
    RWLock& operator=(const RWLock&) = delete;

    void readLock() { pthread_rwlock_rdlock(&lock_); }
    void writeLock() { pthread_rwlock_wrlock(&lock_); }
    void unlock() { pthread_rwlock_unlock(&lock_); }

private:
    pthread_rwlock_t lock_;
};

class LockRead {
public:
    explicit LockRead(RWLock& lock) : lock_(lock) { lock_.readLock(); }
    ~LockRead() { lock_.unlock(); }
    LockRead(const LockRead&) = delete;
    LockRead& operator=(const LockRead&) = delete;

private:
    RWLock& lock_;
};

class LockWrite {
public:
    explicit LockWrite(RWLock& lock) : lock_(lock) { lock_.writeLock(); }
    ~LockWrite() { lock_.unlock(); }
    LockWrite(const LockWrite&) = delete;
    LockWrite& operator=(const LockWrite&) = delete;

private:
    RWLock& lock_;
};

}  // namespace Core
}  // namespace Zel
