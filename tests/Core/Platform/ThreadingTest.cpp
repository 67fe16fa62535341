// Threads and the two semaphores every control thread sleeps on.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "Core/Platform/BinarySem.h"
#include "Core/Platform/Mutex.h"
#include "Core/Platform/Thread.h"
#include "Core/Platform/TimedSem.h"
#include "support/LogCapture.h"

using namespace Zel::Core;

namespace {

timespec secondsFromNow(int seconds) {
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec += seconds;
    return t;
}

struct Gate {
    std::promise<void> started;
    std::shared_future<void> released;
    std::atomic<int> runs{0};
};

void* gatedBody(void* arg) {
    auto* gate = static_cast<Gate*>(arg);
    if (gate->runs++ == 0) {
        gate->started.set_value();
    }
    gate->released.wait();
    return nullptr;
}

}  // namespace

TEST(ThreadUtilTest, StartJoinAndDetachAreCounted) {
    std::promise<void> release;
    Gate gate;
    gate.released = release.get_future().share();
    Thread thread;
    ASSERT_TRUE(ThreadUtil::Start(thread, gatedBody, &gate, "Worker"));
    gate.started.get_future().wait();
    // Starting a running thread does nothing.
    pthread_t handle = thread.handle;
    ThreadUtil::Start(thread, gatedBody, &gate, "Worker");
    EXPECT_TRUE(pthread_equal(handle, thread.handle));
    EXPECT_EQ(1u, ThreadUtil::LiveThreads());
    release.set_value();
    ThreadUtil::Join(thread);
    ThreadUtil::Join(thread);  // harmless
    EXPECT_EQ(1, gate.runs.load());
    EXPECT_EQ(0u, ThreadUtil::LiveThreads());

    // The same object starts again once joined; a detached thread counts until it ends.
    Gate second;
    second.released = gate.released;
    ASSERT_TRUE(ThreadUtil::Start(thread, gatedBody, &second, nullptr));
    ThreadUtil::Detach(thread);
    EXPECT_FALSE(thread.running);
    EXPECT_TRUE(ThreadUtil::WaitForNoLiveThreads(60000));
    EXPECT_EQ(1, second.runs.load());
}

TEST(TimedSemTest, ResetsAreKeptOnceAndAFailedWaitEndsAsIfReset) {
    ZelTest::LogCapture capture;
    Mutex mutex;
    TimedSem sem(mutex);
    LockMutex lock(mutex);
    // The deadline is far enough away that a lost reset would show as a time-out.
    timespec later = secondsFromNow(60);
    sem.reset();
    sem.reset();
    EXPECT_EQ(0, sem.wait(&later));
    timespec past = secondsFromNow(-1);
    EXPECT_EQ(1, sem.wait(&past));
    // A nanosecond field of a full second is refused by the condition wait.
    timespec invalid{5, 1000000000};
    EXPECT_EQ(0, sem.wait(&invalid));
    EXPECT_TRUE(capture.contains("TimedSem Problem: 22 5.1000000000s"));
    EXPECT_EQ(1, sem.wait(&past));
}

TEST(SemaphoreTest, ManyHandOffs) {
    // The main thread gives a binary semaphore, the partner answers through a
    // timed one with a deadline; a lost wake-up hangs or times out.
    Mutex mutex;
    BinarySem ping(false, mutex);
    TimedSem pong(mutex);
    const int rounds = 2000;
    int counter = 0;
    std::thread partner([&] {
        LockMutex lock(mutex);
        for (int i = 0; i < rounds; ++i) {
            ping.takeLocked();
            ++counter;
            pong.reset();
        }
    });
    {
        LockMutex lock(mutex);
        for (int i = 0; i < rounds; ++i) {
            ping.giveLocked();
            timespec later = secondsFromNow(60);
            ASSERT_EQ(0, pong.wait(&later));
            ASSERT_EQ(i + 1, counter);
        }
    }
    partner.join();
}
