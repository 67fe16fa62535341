#include "Core/Base/DaTimer.h"

#include <json/value.h>

#include <cstdint>
#include <limits>

#include "Core/Platform/JsonUtil.h"

namespace Zel {
namespace Core {

std::string DaTimer::Format(const timespec& lastCall) {
    Json::Value timer(Json::objectValue);
    timer["sec"] = static_cast<Json::Int64>(lastCall.tv_sec);
    timer["nsec"] = static_cast<Json::Int64>(lastCall.tv_nsec);
    return JsonUtil::Compact(timer);
}

bool DaTimer::Parse(const std::string& text, timespec& lastCall) {
    Json::Value timer;
    int64_t sec = 0;
    int64_t nsec = 0;
    if (!JsonUtil::Parse(text, timer) || !JsonUtil::GetInt64(JsonUtil::Member(timer, "sec"), sec) ||
        !JsonUtil::GetInt64(JsonUtil::Member(timer, "nsec"), nsec)) {
        return false;
    }
    if (sec < 0 ||
        static_cast<uint64_t>(sec) > static_cast<uint64_t>(std::numeric_limits<time_t>::max()) ||
        nsec < 0 || nsec > 999999999) {
        return false;
    }
    lastCall.tv_sec = static_cast<time_t>(sec);
    lastCall.tv_nsec = static_cast<long>(nsec);
    return true;
}

}  // namespace Core
}  // namespace Zel
