#include "Core/Platform/Thread.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

namespace {

constexpr const char* kLogSource = "Platform/Thread";

// A detached thread may still be on its way out when the host returns from
// main, so what it touches last is never destroyed.
struct LiveCount {
    std::mutex mutex;
    std::condition_variable changed;
    unsigned count = 0;
};

LiveCount& live() {
    static LiveCount* threads = new LiveCount;
    return *threads;
}

struct Launch {
    void* (*routine)(void*);
    void* arg;
    char name[16];
};

void threadEnded() {
    LiveCount& threads = live();
    std::lock_guard<std::mutex> guard(threads.mutex);
    --threads.count;
    threads.changed.notify_all();
}

void* trampoline(void* raw) {
    Launch launch = *static_cast<Launch*>(raw);
    delete static_cast<Launch*>(raw);
    if (launch.name[0] != '\0') {
        pthread_setname_np(pthread_self(), launch.name);
    }
    void* result = nullptr;
    // The last resort: an exception must end this thread, not the host's process.
    try {
        result = launch.routine(launch.arg);
    } catch (const std::exception& error) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityFatal, "Thread %s ended by an exception: %s",
                launch.name, error.what());
    } catch (...) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityFatal, "Thread %s ended by an exception",
                launch.name);
    }
    threadEnded();
    return result;
}

}  // namespace

bool ThreadUtil::Start(Thread& thread, void* (*routine)(void*), void* arg, const char* name) {
    if (thread.running) {
        return true;
    }
    auto* launch = new (std::nothrow) Launch{routine, arg, {}};
    if (launch == nullptr) {
        return false;
    }
    if (name != nullptr) {
        // Linux keeps at most 15 characters of a thread name.
        std::snprintf(launch->name, sizeof launch->name, "%s", name);
    }
    {
        std::lock_guard<std::mutex> guard(live().mutex);
        ++live().count;
    }
    if (pthread_create(&thread.handle, nullptr, trampoline, launch) == 0) {
        thread.running = true;
    } else {
        delete launch;
        threadEnded();
    }
    return thread.running;
}

void ThreadUtil::Join(Thread& thread) {
    if (thread.running && pthread_join(thread.handle, nullptr) == 0) {
        thread.running = false;
    }
}

void ThreadUtil::Detach(Thread& thread) {
    if (thread.running && pthread_detach(thread.handle) == 0) {
        thread.running = false;
    }
}

std::string ThreadUtil::GetThreadIdAsString() {
    pthread_t self = pthread_self();
    unsigned char bytes[sizeof self];
    std::memcpy(bytes, &self, sizeof self);
    std::string text;
    char digits[3];
    for (unsigned char byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

unsigned ThreadUtil::LiveThreads() {
    std::lock_guard<std::mutex> guard(live().mutex);
    return live().count;
}

bool ThreadUtil::WaitForNoLiveThreads(unsigned timeoutMs) {
    LiveCount& threads = live();
    std::unique_lock<std::mutex> lock(threads.mutex);
    return threads.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                    [&threads] { return threads.count == 0; });
}

}  // namespace Core
}  // namespace Zel
