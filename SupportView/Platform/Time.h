#pragma once

#include <time.h>

#include <functional>
#include <string>

namespace Zel {
namespace Sv {

// Date, time and uptime for the commands.
class Time {
public:
    // Sets the system clock; returns 0 or -1 like settimeofday.
    using ClockSetter = std::function<int(const timespec&)>;

    // The current UTC time as "%Y-%m-%dT%H:%M:%SZ".
    static std::string GetCurrentDateTime();
    // Parses "%FT%T" (UTC) and sets the clock; false on a bad text or a refusal.
    static bool SetCurrentDateTime(const std::string& text);
    // Seconds since boot; 0 when unknown.
    static double GetUptime();
    // Seconds left of a budget of `seconds` started at `start`; 0 when spent.
    static double CalculateRemainingTime(double seconds, const timespec& start);

    // Replaces the system clock setter (tests); an empty function restores it.
    static void SetClockSetter(ClockSetter setter);
};

}  // namespace Sv
}  // namespace Zel
