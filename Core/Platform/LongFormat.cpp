#include "Core/Platform/LongFormat.h"

#include "Core/Platform/FilterProperties.h"

namespace Zel {
namespace Core {

std::string LongFormat::TimeStamp(const Timestamp& timestamp) {
    return TimeText(timestamp, "%Y-%m-%dT%H:%M:%S", ".%06dZ", timestamp.microseconds);
}

std::string LongFormat::format(const LoggingEvent& event) {
    std::string out = "[ZEL] ";
    out += TimeStamp(event.timestamp);
    out += ' ';
    out += event.threadId;
    out += ' ';
    AppendPadded(out, FilterProperties::GetServiceName(event.service), 5);
    out += ' ';
    AppendPadded(out, FilterProperties::GetCategoryName(event.category), 10);
    out += ' ';
    AppendPadded(out, FilterProperties::GetSeverityName(event.severity), 7);
    out += ' ';
    AppendPadded(out, event.file + ":" + std::to_string(event.line) + "-{" + event.function + "}",
                 75);
    out += ' ';
    out += event.message;
    out += '\n';
    return out;
}

}  // namespace Core
}  // namespace Zel
