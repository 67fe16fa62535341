#include "Core/Platform/ShortFormat.h"

#include "Core/Platform/FilterProperties.h"

namespace Zel {
namespace Core {

std::string ShortFormat::format(const LoggingEvent& event) {
    std::string out;
    out.reserve(24 + event.message.size() + 1);
    AppendPadded(out, FilterProperties::GetServiceName(event.service), 5);
    out += ' ';
    AppendPadded(out, FilterProperties::GetCategoryName(event.category), 10);
    out += ' ';
    AppendPadded(out, FilterProperties::GetSeverityName(event.severity), 7);
    out += ' ';
    out += event.message;
    out += '\n';
    return out;
}

}  // namespace Core
}  // namespace Zel
