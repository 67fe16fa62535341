#include "SupportView/Platform/Time.h"

#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include "Core/Platform/Logger.h"
#include "Core/Platform/TimeManager.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Platform/Time";

std::mutex& setterMutex() {
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

Time::ClockSetter& setter() {
    static Time::ClockSetter* current = new Time::ClockSetter;
    return *current;
}

int systemSetter(const timespec& when) {
    timeval value{};
    value.tv_sec = when.tv_sec;
    value.tv_usec = when.tv_nsec / 1000;
    return settimeofday(&value, nullptr);
}

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};
}  // namespace

std::string Time::GetCurrentDateTime() {
    time_t now = TimeManager::Instance().now().tv_sec;
    tm utc{};
    gmtime_r(&now, &utc);
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

bool Time::SetCurrentDateTime(const std::string& text) {
    tm parsed{};
    const char* end = strptime(text.c_str(), "%FT%T", &parsed);
    time_t seconds = end == nullptr ? -1 : timegm(&parsed);
    if (seconds == -1) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError,
                "Failed to convert Date/Time formatted string into a time value.");
        return false;
    }
    timespec when{seconds, 0};
    ClockSetter current;
    {
        std::lock_guard<std::mutex> lock(setterMutex());
        current = setter();
    }
    return (current ? current(when) : systemSetter(when)) == 0;
}

double Time::GetUptime() {
    std::unique_ptr<FILE, FileCloser> file(fopen("/proc/uptime", "r"));
    double seconds = 0;
    if (!file || fscanf(file.get(), "%63lf", &seconds) != 1) {
        return 0;
    }
    return seconds;
}

double Time::CalculateRemainingTime(double seconds, const timespec& start) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    double spent = static_cast<double>(now.tv_sec - start.tv_sec) +
                   static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9;
    return spent >= seconds ? 0 : seconds - spent;
}

void Time::SetClockSetter(ClockSetter replacement) {
    std::lock_guard<std::mutex> lock(setterMutex());
    setter() = std::move(replacement);
}

}  // namespace Sv
}  // namespace Zel
