#include "SoftwareUpdate/Platform/PayloadManager.h"

#include <time.h>

#include <cstdarg>

#include "Core/Platform/StringUtil.h"

namespace Zel {
namespace Su {

void PayloadManager::SetFailure(bool& failure, std::string& failReason, std::string& failTime,
                                const char* format, ...) {
    failure = true;
    va_list args;
    va_start(args, format);
    failReason = Core::StringUtil::Vform(format, args);
    va_end(args);
    time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    char text[80];
    size_t length = strftime(text, sizeof text, "%FT%TZ", &utc);
    failTime = length == 0 ? "" : text;
}

}  // namespace Su
}  // namespace Zel
