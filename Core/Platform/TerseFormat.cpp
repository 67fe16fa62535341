#include "Core/Platform/TerseFormat.h"

namespace Zel {
namespace Core {

std::string TerseFormat::format(const LoggingEvent& event) {
    return event.message + "\n";
}

}  // namespace Core
}  // namespace Zel
