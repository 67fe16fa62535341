#include "Core/Platform/MediumFormat.h"

namespace Zel {
namespace Core {

std::string MediumFormat::format(const LoggingEvent& event) {
    std::string out =
        TimeText(event.timestamp, "%H:%M:%S", ".%03d", event.timestamp.microseconds / 1000);
    out += ' ';
    AppendNames(out, event);
    AppendPadded(out, event.function + "()", 20);
    out += ' ';
    out += event.message;
    out += '\n';
    return out;
}

}  // namespace Core
}  // namespace Zel
