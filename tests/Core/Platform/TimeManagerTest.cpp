#include "Core/Platform/TimeManager.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>

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

}  // namespace

TEST(TimeManagerTest, DelayRuleEdges) {
    const struct {
        timespec now;
        uint32_t fixed, varied, r;
        time_t sec;
        long nsec;
    } rows[] = {
        // No varied part: exactly the fixed delay, whatever r is.
        {at(100, 250000000), 5000, 0, 12345, 105, 250000000},
        // The extra part is shifted by one: r mod 1 = 0 still adds 1 ms, and
        // 999 + 1 ms carries into a whole second.
        {at(100, 0), 999, 1, 0, 101, 0},
        // The top of 1500 + 1..1000 ms; 4294967295 mod 1000 = 295.
        {at(100, 0), 1500, 1000, 999, 102, 500000000},
        {at(100, 0), 1500, 1000, UINT32_MAX, 101, 796000000},
        // The last nanosecond of a second plus 1 ms lands in the next second.
        {at(100, 999999999), 1, 0, 0, 101, 999999},
        // The full range of varied does not overflow: extra = 4294967295 ms.
        {at(0, 0), 0, UINT32_MAX, UINT32_MAX - 1, 4294967, 295000000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.fixed) + "/" + std::to_string(row.varied) + " r " +
                     std::to_string(row.r));
        timespec deadline{};
        ApplyDelayRule(row.now, deadline, row.fixed, row.varied, row.r);
        EXPECT_EQ(row.sec, deadline.tv_sec);
        EXPECT_EQ(row.nsec, deadline.tv_nsec);
    }
}

TEST(TimeManagerTest, RandomDelayStaysWithinBounds) {
    const timespec now = at(1700000000, 999000000);
    std::set<long long> delays;
    for (int i = 0; i < 500; ++i) {
        timespec deadline{};
        TimeManager::Instance().updateTimestamp(now, deadline, 1500, 1000);
        long long delay = span(now, deadline);
        ASSERT_GE(delay, 1501000000LL);
        ASSERT_LE(delay, 2500000000LL);
        delays.insert(delay);
    }
    EXPECT_LT(1u, delays.size()) << "the varied part does not vary";
}
