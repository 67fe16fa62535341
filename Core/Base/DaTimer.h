#pragma once

#include <time.h>

#include <string>

namespace Zel {
namespace Core {

// The "daTime" file: when StateControl last called the cloud, as {"sec", "nsec"}.
class DaTimer {
public:
    static constexpr const char* kBaseName = "daTime";

    static std::string Format(const timespec& lastCall);
    // False unless the text is an object whose "sec" is a time this platform
    // can hold (not before the epoch) and whose "nsec" lies in 0..999999999:
    // anything else would make an invalid deadline.
    static bool Parse(const std::string& text, timespec& lastCall);
};

}  // namespace Core
}  // namespace Zel
