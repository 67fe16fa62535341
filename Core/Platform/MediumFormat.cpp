#include "Core/Platform/MediumFormat.h"

#include "Core/Platform/FilterProperties.h"

namespace Zel {
namespace Core {

std::string MediumFormat::format(const LoggingEvent& event) {
    std::string out =
        TimeText(event.timestamp, "%H:%M:%S", ".%03d", event.timestamp.microseconds / 1000);
    out += ' ';
    AppendPadded(out, FilterProperties::GetServiceName(event.service), 5);
    out += ' ';
    AppendPadded(out, FilterProperties::GetCategoryName(event.category), 10);
    out += ' ';
    AppendPadded(out, FilterProperties::GetSeverityName(event.severity), 7);
    out += ' ';
    AppendPadded(out, event.function + "()", 20);
    out += ' ';
    out += event.message;
    out += '\n';
    return out;
}

}  // namespace Core
}  // namespace Zel
