#pragma once

#include <time.h>

#include <cstdio>
#include <string>

#include "Core/Platform/FilterProperties.h"
#include "Core/Platform/LoggingEvent.h"
#include "Core/Platform/Timestamp.h"

namespace Zel {
namespace Core {

// Renders one event as the text an appender writes. Formats keep no state, so
// one instance serves every record of its appender.
class Format {
public:
    virtual ~Format() = default;
    virtual std::string format(const LoggingEvent& event) = 0;

protected:
    // Left-justified in `width` columns; a longer text is kept whole.
    static void AppendPadded(std::string& out, const std::string& text, size_t width) {
        out += text;
        if (text.size() < width) {
            out.append(width - text.size(), ' ');
        }
    }

    // The service, category and severity columns (5, 10 and 7 wide), each
    // followed by a blank.
    static void AppendNames(std::string& out, const LoggingEvent& event) {
        AppendPadded(out, FilterProperties::GetServiceName(event.service), 5);
        out += ' ';
        AppendPadded(out, FilterProperties::GetCategoryName(event.category), 10);
        out += ' ';
        AppendPadded(out, FilterProperties::GetSeverityName(event.severity), 7);
        out += ' ';
    }

    // UTC time by `pattern`, then `fraction` rendered by `fractionPattern`. When
    // strftime yields nothing (an unrepresentable time) the fraction is left out
    // too and the text is empty.
    static std::string TimeText(const Timestamp& timestamp, const char* pattern,
                                const char* fractionPattern, long fraction) {
        char buffer[128];
        time_t seconds = static_cast<time_t>(timestamp.seconds);
        struct tm parts {};
        if (gmtime_r(&seconds, &parts) == nullptr) {
            return std::string();
        }
        size_t length = strftime(buffer, sizeof buffer, pattern, &parts);
        if (length == 0) {
            return std::string();
        }
        std::snprintf(buffer + length, sizeof buffer - length, fractionPattern,
                      static_cast<int>(fraction));
        return buffer;
    }
};

}  // namespace Core
}  // namespace Zel
