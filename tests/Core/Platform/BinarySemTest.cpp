#include "Core/Platform/BinarySem.h"

#include <gtest/gtest.h>

#include <thread>

#include "Core/Platform/Mutex.h"

using Zel::Core::BinarySem;
using Zel::Core::LockMutex;
using Zel::Core::Mutex;

TEST(BinarySemTest, InitialAndRepeatedGives) {
    Mutex mutex;
    BinarySem given(true, mutex);
    given.takeUnlocked();  // returns at once

    BinarySem sem(false, mutex);
    {
        LockMutex lock(mutex);
        sem.giveLocked();
        sem.giveLocked();
        sem.takeLocked();
    }
    sem.giveUnlocked();
    sem.takeUnlocked();
}

TEST(BinarySemTest, GiveFromAnotherThreadWakesTaker) {
    Mutex mutex;
    BinarySem sem(false, mutex);
    bool taken = false;
    std::thread taker([&] {
        sem.takeUnlocked();
        LockMutex lock(mutex);
        taken = true;
    });
    sem.giveUnlocked();
    taker.join();
    EXPECT_TRUE(taken);
}

TEST(BinarySemTest, ManyHandOffs) {
    // Producer and consumer alternate through two semaphores; a lost give
    // hangs the test, a spurious take breaks the count.
    Mutex mutex;
    BinarySem full(false, mutex);
    BinarySem empty(true, mutex);
    const int rounds = 2000;
    int slot = 0;
    long sum = 0;
    std::thread consumer([&] {
        for (int i = 0; i < rounds; ++i) {
            LockMutex lock(mutex);
            full.takeLocked();
            sum += slot;
            slot = 0;
            empty.giveLocked();
        }
    });
    for (int i = 1; i <= rounds; ++i) {
        LockMutex lock(mutex);
        empty.takeLocked();
        ASSERT_EQ(0, slot);
        slot = i;
        full.giveLocked();
    }
    consumer.join();
    EXPECT_EQ(static_cast<long>(rounds) * (rounds + 1) / 2, sum);
}
