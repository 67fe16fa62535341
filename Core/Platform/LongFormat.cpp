#include "Core/Platform/LongFormat.h"

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
    AppendNames(out, event);
    AppendPadded(out, event.file + ":" + std::to_string(event.line) + "-{" + event.function + "}",
                 75);
    out += ' ';
    out += event.message;
    out += '\n';
    return out;
}

}  // namespace Core
}  // namespace Zel
