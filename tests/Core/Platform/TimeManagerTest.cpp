#include "Core/Platform/TimeManager.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/LogCapture.h"

using Zel::Core::ApplyDelayRule;
using Zel::Core::TimeManager;

namespace {

timespec at(time_t sec, long nsec) {
    timespec t{};
    t.tv_sec = sec;
    t.tv_nsec = nsec;
    return t;
}

// Nanoseconds from `from` to `to`.
long long span(const timespec& from, const timespec& to) {
    return (static_cast<long long>(to.tv_sec) - from.tv_sec) * 1000000000LL +
           (to.tv_nsec - from.tv_nsec);
}

class ClockGuard {
public:
    ~ClockGuard() { TimeManager::Instance().setClock(nullptr); }
};

}  // namespace

TEST(TimeManagerTest, GoodTimeStartsOneSecondAfterThreshold) {
    ClockGuard guard;
    TimeManager& manager = TimeManager::Instance();
    time_t reading = 0;
    manager.setClock([&reading] { return at(reading, 0); });

    reading = 1633453286;
    EXPECT_FALSE(manager.isGoodTime());
    EXPECT_EQ(1633453286, manager.now().tv_sec);
    reading = 1633453287;
    EXPECT_TRUE(manager.isGoodTime());

    // An empty clock puts the wall clock back, which is well past 2021.
    manager.setClock(nullptr);
    EXPECT_TRUE(manager.isGoodTime());
}

TEST(TimeManagerTest, DelayRuleEdges) {
    timespec deadline{};

    // No varied part: exactly the fixed delay, whatever r is.
    ApplyDelayRule(at(100, 250000000), deadline, 5000, 0, 12345);
    EXPECT_EQ(105, deadline.tv_sec);
    EXPECT_EQ(250000000, deadline.tv_nsec);

    // The extra part is shifted by one: r mod 1 = 0 still adds 1 ms, and
    // 999 + 1 ms carries into a whole second.
    ApplyDelayRule(at(100, 0), deadline, 999, 1, 0);
    EXPECT_EQ(101, deadline.tv_sec);
    EXPECT_EQ(0, deadline.tv_nsec);

    // The bounds of 1500 + 1..1000 ms.
    ApplyDelayRule(at(100, 0), deadline, 1500, 1000, 0);
    EXPECT_EQ(1501000000LL, span(at(100, 0), deadline));
    ApplyDelayRule(at(100, 0), deadline, 1500, 1000, 999);
    EXPECT_EQ(2500000000LL, span(at(100, 0), deadline));
    ApplyDelayRule(at(100, 0), deadline, 1500, 1000, UINT32_MAX);  // 4294967295 mod 1000 = 295
    EXPECT_EQ(1796000000LL, span(at(100, 0), deadline));

    // The last nanosecond of a second plus 1 ms lands in the next second.
    ApplyDelayRule(at(100, 999999999), deadline, 1, 0, 0);
    EXPECT_EQ(101, deadline.tv_sec);
    EXPECT_EQ(999999, deadline.tv_nsec);

    // A `now` that is itself not normalised needs the second carry.
    ApplyDelayRule(at(100, 1500000000), deadline, 600, 0, 0);
    EXPECT_EQ(102, deadline.tv_sec);
    EXPECT_EQ(100000000, deadline.tv_nsec);

    // The full range of varied does not overflow: extra = 4294967295 ms.
    ApplyDelayRule(at(0, 0), deadline, 0, UINT32_MAX, UINT32_MAX - 1);
    EXPECT_EQ(4294967, deadline.tv_sec);
    EXPECT_EQ(295000000, deadline.tv_nsec);
}

TEST(TimeManagerTest, DelayIsLogged) {
    ZelTest::LogCapture capture;
    timespec deadline{};
    ApplyDelayRule(at(0, 0), deadline, 5000, 0, 0);
    ApplyDelayRule(at(0, 0), deadline, 1500, 1000, 41);
    EXPECT_TRUE(capture.contains("calculated 5.000s delay"));
    EXPECT_TRUE(capture.contains("calculated 1.542s delay"));
}

TEST(TimeManagerTest, RandomDelayStaysWithinBounds) {
    TimeManager& manager = TimeManager::Instance();
    const timespec now = at(1700000000, 999000000);
    timespec deadline{};
    manager.updateTimestamp(now, deadline, 5000, 0);
    EXPECT_EQ(5000000000LL, span(now, deadline));

    bool varies = false;
    long long first = -1;
    for (int i = 0; i < 500; ++i) {
        manager.updateTimestamp(now, deadline, 1500, 1000);
        long long delay = span(now, deadline);
        ASSERT_GE(delay, 1501000000LL);
        ASSERT_LE(delay, 2500000000LL);
        ASSERT_EQ(0, delay % 1000000);
        ASSERT_LT(deadline.tv_nsec, 1000000000L);
        if (first < 0) {
            first = delay;
        } else if (delay != first) {
            varies = true;
        }
    }
    EXPECT_TRUE(varies);
}
