#include "SupportView/Platform/System.h"

#include <cstdlib>

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Platform/System";
}  // namespace

bool System::SystemCall(const std::string& command, int& status) {
    status = std::system(command.c_str());
    if (status == -1) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "System call \"%s\" failed.",
                command.c_str());
        return false;
    }
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "System call \"%s\" returned 0x%01x.",
            command.c_str(), static_cast<unsigned>(status));
    return true;
}

}  // namespace Sv
}  // namespace Zel
