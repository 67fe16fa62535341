#include "Core/Platform/TimeManager.h"

#include <cstdint>
#include <cstring>
#include <mutex>

#include "Core/Platform/Logger.h"
#include "Core/Platform/RandomUtil.h"

namespace {
constexpr const char* kLogSource = "Platform/TimeManager";

constexpr long kNsPerSecond = 1000000000L;
constexpr long kNsPerMs = 1000000L;

// Guards the injected clock: tests swap it while control threads may be asking
// whether the time is good. Never destroyed, like the manager itself.
std::mutex& clockMutex() {
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}
}  // namespace

namespace Zel {
namespace Core {

// The delay rule with the random number supplied; updateTimestamp draws r.
void ApplyDelayRule(const timespec& now, timespec& deadline, unsigned fixed, unsigned varied,
                    uint32_t r) {
    unsigned extra = varied == 0 ? 0 : (r % varied) + 1;
    unsigned seconds = fixed / 1000 + extra / 1000;
    long nanoseconds = static_cast<long>((extra % 1000) + (fixed % 1000)) * kNsPerMs;
    if (nanoseconds > kNsPerSecond - 1) {
        nanoseconds -= kNsPerSecond;
        ++seconds;
    }
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "calculated %u.%03us delay", seconds,
            static_cast<unsigned>(nanoseconds / kNsPerMs));

    deadline.tv_sec = now.tv_sec + static_cast<time_t>(seconds);
    deadline.tv_nsec = now.tv_nsec + nanoseconds;
    // Two carries at most: the delay's part is below one second, and `now`
    // should be too.
    if (deadline.tv_nsec > kNsPerSecond - 1) {
        deadline.tv_nsec -= kNsPerSecond;
        ++deadline.tv_sec;
        if (deadline.tv_nsec > kNsPerSecond - 1) {
            deadline.tv_nsec -= kNsPerSecond;
            ++deadline.tv_sec;
        }
    }
}

// Never destroyed: agent threads may still read the clock while the host exits.
TimeManager& TimeManager::Instance() {
    static TimeManager* instance = new TimeManager;
    return *instance;
}

timespec TimeManager::now() const {
    std::function<timespec()> clock;
    {
        std::lock_guard<std::mutex> guard(clockMutex());
        clock = clock_;
    }
    if (clock) {
        return clock();
    }
    timespec current{};
    clock_gettime(CLOCK_REALTIME, &current);
    return current;
}

void TimeManager::setClock(std::function<timespec()> clock) {
    std::lock_guard<std::mutex> guard(clockMutex());
    clock_ = std::move(clock);
}

bool TimeManager::isGoodTime() const {
    return now().tv_sec > kGoodTimeThreshold;
}

void TimeManager::updateTimestamp(const timespec& now, timespec& deadline, unsigned fixed,
                                  unsigned varied) {
    uint32_t r = 0;
    if (varied != 0) {
        unsigned char bytes[sizeof r] = {};
        // A failed read is not fatal here: the delay is then taken from
        // whatever the buffer holds.
        RandomUtil::GetBytes(bytes, sizeof bytes);
        std::memcpy(&r, bytes, sizeof r);
    }
    ApplyDelayRule(now, deadline, fixed, varied, r);
}

}  // namespace Core
}  // namespace Zel
