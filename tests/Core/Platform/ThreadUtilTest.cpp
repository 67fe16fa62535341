#include "Core/Platform/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <cstring>
#include <future>
#include <set>
#include <thread>

#include "Core/Platform/Mutex.h"

using Zel::Core::LockMutex;
using Zel::Core::LockRead;
using Zel::Core::LockWrite;
using Zel::Core::Mutex;
using Zel::Core::RWLock;
using Zel::Core::Thread;
using Zel::Core::ThreadUtil;
using Zel::Core::UnlockMutex;

namespace {

struct Gate {
    std::promise<void> started;
    std::promise<void> release;
    std::shared_future<void> released{release.get_future().share()};
    std::atomic<int> runs{0};
    std::string id;
};

void* gatedBody(void* arg) {
    auto* gate = static_cast<Gate*>(arg);
    gate->id = ThreadUtil::GetThreadIdAsString();
    if (gate->runs.fetch_add(1) == 0) {
        gate->started.set_value();
    }
    gate->released.wait();
    return nullptr;
}

}  // namespace

TEST(ThreadUtilTest, StartJoinAndNoSecondStart) {
    Thread thread;
    EXPECT_FALSE(thread.running);
    Gate gate;
    ThreadUtil::Start(thread, gatedBody, &gate, "Worker");
    ASSERT_TRUE(thread.running);
    gate.started.get_future().wait();
    EXPECT_GE(ThreadUtil::LiveThreads(), 1u);

    // Starting a running thread does nothing.
    pthread_t handle = thread.handle;
    ThreadUtil::Start(thread, gatedBody, &gate, "Worker");
    EXPECT_TRUE(pthread_equal(handle, thread.handle));

    gate.release.set_value();
    ThreadUtil::Join(thread);
    EXPECT_EQ(1, gate.runs.load());
    // Joining again is harmless.
    ThreadUtil::Join(thread);
    EXPECT_TRUE(ThreadUtil::WaitForNoLiveThreads(60000));
    EXPECT_EQ(0u, ThreadUtil::LiveThreads());

    // The same object can be started again once joined.
    Gate second;
    second.release.set_value();
    ThreadUtil::Start(thread, gatedBody, &second, nullptr);
    ASSERT_TRUE(thread.running);
    ThreadUtil::Join(thread);
    EXPECT_EQ(1, second.runs.load());
}

TEST(ThreadUtilTest, DetachedThreadIsCountedUntilItEnds) {
    Thread thread;
    Gate gate;
    ThreadUtil::Start(thread, gatedBody, &gate, "Detached");
    ThreadUtil::Detach(thread);
    EXPECT_FALSE(thread.running);
    gate.started.get_future().wait();
    EXPECT_EQ(1u, ThreadUtil::LiveThreads());
    gate.release.set_value();
    EXPECT_TRUE(ThreadUtil::WaitForNoLiveThreads(60000));
}

TEST(ThreadUtilTest, ThreadIdIsHandleBytesInHex) {
    const pthread_t self = pthread_self();
    const auto* bytes = reinterpret_cast<const unsigned char*>(&self);
    std::string expected;
    for (size_t i = 0; i < sizeof self; ++i) {
        expected += "0123456789abcdef"[bytes[i] >> 4];
        expected += "0123456789abcdef"[bytes[i] & 15];
    }
    const std::string id = ThreadUtil::GetThreadIdAsString();
    EXPECT_EQ(expected, id);

    Thread thread;
    Gate gate;
    gate.release.set_value();
    ThreadUtil::Start(thread, gatedBody, &gate, "Id");
    ThreadUtil::Join(thread);
    EXPECT_NE(id, gate.id);
}

TEST(MutexTest, ScopeGuards) {
    Mutex mutex;
    {
        LockMutex lock(mutex);
        EXPECT_EQ(EBUSY, pthread_mutex_trylock(mutex.native()));
        {
            UnlockMutex unlock(mutex);
            ASSERT_EQ(0, pthread_mutex_trylock(mutex.native()));
            pthread_mutex_unlock(mutex.native());
        }
        // Taken back at the end of the unlocked scope.
        EXPECT_EQ(EBUSY, pthread_mutex_trylock(mutex.native()));
    }
    ASSERT_EQ(0, pthread_mutex_trylock(mutex.native()));
    pthread_mutex_unlock(mutex.native());

    // Two threads counting under the guard lose no increment.
    long counter = 0;
    auto count = [&] {
        for (int i = 0; i < 20000; ++i) {
            LockMutex lock(mutex);
            ++counter;
        }
    };
    std::thread a(count);
    std::thread b(count);
    a.join();
    b.join();
    EXPECT_EQ(40000, counter);
}

TEST(RWLockTest, ReadersShareWritersExclude) {
    RWLock lock;
    {
        // A second reader gets in while the first holds the lock; an exclusive
        // lock would hang here.
        LockRead first(lock);
        std::thread reader([&] { LockRead second(lock); });
        reader.join();
    }

    long value = 0;
    auto write = [&] {
        for (int i = 0; i < 10000; ++i) {
            LockWrite guard(lock);
            ++value;
        }
    };
    auto read = [&] {
        long last = 0;
        for (int i = 0; i < 10000; ++i) {
            LockRead guard(lock);
            EXPECT_GE(value, last);
            last = value;
        }
    };
    std::thread w1(write);
    std::thread w2(write);
    std::thread r(read);
    w1.join();
    w2.join();
    r.join();
    EXPECT_EQ(20000, value);
}
