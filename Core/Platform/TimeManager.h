#pragma once

#include <time.h>

#include <cstdint>
#include <functional>

namespace Zel {
namespace Core {

// Owns the delay rule and the test of whether the wall clock can be trusted.
// The delay rule with the random number `r` given: deadline = now + fixed ms,
// plus (r mod varied) + 1 ms when varied is not 0.
void ApplyDelayRule(const timespec& now, timespec& deadline, unsigned fixed, unsigned varied,
                    uint32_t r);

class TimeManager {
public:
    // 2021-10-05T17:01:26Z: a clock at or before it has not been set yet.
    static constexpr time_t kGoodTimeThreshold = 1633453286;

    static TimeManager& Instance();

    void initialize() {}
    void terminateBegin() {}
    void terminateEnd() {}

    // The wall clock (CLOCK_REALTIME) unless a clock was injected.
    timespec now() const;
    // Replaces the wall clock used by now() and isGoodTime(); an empty function restores it.
    void setClock(std::function<timespec()> clock);

    bool isGoodTime() const;

    // deadline = now + fixed ms, plus (r mod varied) + 1 ms for a random r when varied is not 0.
    void updateTimestamp(const timespec& now, timespec& deadline, unsigned fixed, unsigned varied);

private:
    TimeManager() = default;
    std::function<timespec()> clock_;
};

}  // namespace Core
}  // namespace Zel
