// Threads and the timed semaphore every control thread sleeps on.
#include <gtest/gtest.h>

#include <future>

#include "Core/Platform/Mutex.h"
#include "Core/Platform/Thread.h"
#include "Core/Platform/TimedSem.h"

using namespace Zel::Core;

namespace {

timespec secondsFromNow(int seconds) {
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    t.tv_sec += seconds;
    return t;
}

void* waitFor(void* arg) {
    static_cast<std::shared_future<void>*>(arg)->wait();
    return nullptr;
}

}  // namespace

TEST(ThreadUtilTest, StartJoinAndDetachAreCounted) {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    Thread thread;
    ASSERT_TRUE(ThreadUtil::Start(thread, waitFor, &released, "Worker"));
    // Starting a running thread does nothing.
    ThreadUtil::Start(thread, waitFor, &released, "Worker");
    EXPECT_EQ(1u, ThreadUtil::LiveThreads());
    release.set_value();
    ThreadUtil::Join(thread);
    EXPECT_EQ(0u, ThreadUtil::LiveThreads());

    // The same object starts again once joined; a detached thread counts until it ends.
    ASSERT_TRUE(ThreadUtil::Start(thread, waitFor, &released, nullptr));
    ThreadUtil::Detach(thread);
    EXPECT_FALSE(thread.running);
    EXPECT_TRUE(ThreadUtil::WaitForNoLiveThreads(60000));
}

TEST(TimedSemTest, ResetsAreKeptOnceAndAFailedWaitEndsAsIfReset) {
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
}
