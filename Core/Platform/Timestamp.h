#pragma once

#include <sys/time.h>

namespace Zel {
namespace Core {

// Wall-clock time at construction, to the microsecond.
struct Timestamp {
    Timestamp() {
        timeval now{};
        gettimeofday(&now, nullptr);
        seconds = now.tv_sec;
        microseconds = now.tv_usec;
    }
    Timestamp(long sec, long usec) : seconds(sec), microseconds(usec) {}

    long seconds;
    long microseconds;
};

}  // namespace Core
}  // namespace Zel
