#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace ZelCloud {

// Waits until `predicate` holds for a registry's snapshot. The predicate runs
// with the registry unlocked, so it may call the cloud back (a test's
// condition often reads another registry, or this one); the wait then sleeps
// until the snapshot differs from the one it saw.
template <typename Snapshot, typename Predicate>
bool WaitForSnapshot(std::mutex& mutex, std::condition_variable& changed, Snapshot snapshot,
                     const Predicate& predicate, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        Json::Value seen = snapshot();
        lock.unlock();
        if (predicate(seen)) {
            return true;
        }
        lock.lock();
        if (!changed.wait_until(lock, deadline, [&] { return snapshot() != seen; })) {
            return false;
        }
    }
}

}  // namespace ZelCloud
