#pragma once

#include <pthread.h>

#include <string>

namespace Zel {
namespace Core {

struct Thread {
    pthread_t handle{};
    bool running = false;
};

// Starts, joins and detaches the agent's named threads. It also counts the
// threads whose bodies are still running, so that a shut-down can be proven
// to leave none behind.
class ThreadUtil {
public:
    // Does nothing when the thread is already running; false when it is not
    // running afterwards. An exception that reaches the top of the routine is
    // logged at fatal severity and ends the thread, never the process.
    static bool Start(Thread& thread, void* (*routine)(void*), void* arg, const char* name);
    static void Join(Thread& thread);
    static void Detach(Thread& thread);

    // Each byte of the native handle, in memory order, as two lowercase hex digits.
    static std::string GetThreadIdAsString();

    // Threads started through Start whose routine has not yet returned.
    static unsigned LiveThreads();
    // Waits until no such thread is left, at most `timeoutMs`; true when none is.
    static bool WaitForNoLiveThreads(unsigned timeoutMs);
};

}  // namespace Core
}  // namespace Zel
