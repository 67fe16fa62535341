#include "Core/Platform/ShortFormat.h"

namespace Zel {
namespace Core {

std::string ShortFormat::format(const LoggingEvent& event) {
    std::string out;
    out.reserve(24 + event.message.size() + 1);
    AppendNames(out, event);
    out += event.message;
    out += '\n';
    return out;
}

}  // namespace Core
}  // namespace Zel
