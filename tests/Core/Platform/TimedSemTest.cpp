#include "Core/Platform/TimedSem.h"

#include <gtest/gtest.h>

#include <thread>

#include "Core/Platform/Mutex.h"
#include "support/LogCapture.h"

using Zel::Core::LockMutex;
using Zel::Core::Mutex;
using Zel::Core::TimedSem;

namespace {

timespec secondsFromNow(int seconds) {
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec += seconds;
    return t;
}

}  // namespace

TEST(TimedSemTest, ResetBeforeWaitIsKeptOnceAndPastDeadlineTimesOut) {
    Mutex mutex;
    TimedSem sem(mutex);
    LockMutex lock(mutex);

    // The deadline is far enough away that a lost reset would show as a time-out.
    timespec later = secondsFromNow(60);
    sem.reset();
    sem.reset();
    EXPECT_EQ(0, sem.wait(&later));

    // Two resets count as one: the next wait sees nothing.
    timespec past = secondsFromNow(-1);
    EXPECT_EQ(1, sem.wait(&past));
    timespec epoch{};
    EXPECT_EQ(1, sem.wait(&epoch));

    sem.reset();
    EXPECT_EQ(0, sem.wait(nullptr));
}

TEST(TimedSemTest, ResetFromAnotherThreadWakesWaiter) {
    Mutex mutex;
    TimedSem sem(mutex);
    // Whichever thread gets the mutex first, the waiter must end woken, not timed out.
    for (bool withDeadline : {false, true}) {
        int result = -1;
        std::thread waiter([&] {
            sem.lock();
            timespec later = secondsFromNow(60);
            result = sem.wait(withDeadline ? &later : nullptr);
            sem.unlock();
        });
        {
            LockMutex lock(mutex);
            sem.reset();
        }
        waiter.join();
        EXPECT_EQ(0, result) << "withDeadline " << withDeadline;
    }
}

TEST(TimedSemTest, ManyHandOffs) {
    // Ping-pong between two threads, each sleeping on its own semaphore over a
    // shared mutex; any lost reset hangs the test.
    Mutex mutex;
    TimedSem ping(mutex);
    TimedSem pong(mutex);
    const int rounds = 2000;
    int counter = 0;
    std::thread partner([&] {
        LockMutex lock(mutex);
        for (int i = 0; i < rounds; ++i) {
            ASSERT_EQ(0, ping.wait(nullptr));
            ++counter;
            pong.reset();
        }
    });
    {
        LockMutex lock(mutex);
        for (int i = 0; i < rounds; ++i) {
            ping.reset();
            ASSERT_EQ(0, pong.wait(nullptr));
            ASSERT_EQ(i + 1, counter);
        }
    }
    partner.join();
}

TEST(TimedSemTest, FailedWaitIsLoggedAndEndsAsIfReset) {
    ZelTest::LogCapture capture;
    Mutex mutex;
    TimedSem sem(mutex);
    LockMutex lock(mutex);
    // A nanosecond field of a full second is refused by the condition wait.
    timespec invalid{};
    invalid.tv_sec = 5;
    invalid.tv_nsec = 1000000000;
    EXPECT_EQ(0, sem.wait(&invalid));
    EXPECT_TRUE(capture.contains("TimedSem Problem: 22 5.1000000000s"));
    // The failure does not leave a pending wake-up behind.
    timespec past = secondsFromNow(-1);
    EXPECT_EQ(1, sem.wait(&past));
}
