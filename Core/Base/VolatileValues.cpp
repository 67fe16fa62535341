#include "Core/Base/VolatileValues.h"

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Core {

namespace {
constexpr const char* kLogSource = "Base/VolatileValues";

const char* text(bool value) {
    return value ? "true" : "false";
}
}  // namespace

void VolatileValues::logStateDebug(const timespec& now) const {
    if (!Logger::Instance().test(ServiceCore, CategoryState, SeverityDebug)) {
        return;
    }
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "volatile->pending                    : %s",
            text(pending));
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "volatile->busy                       : %s",
            text(busy));
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "volatile->evaluate                   : %s",
            text(evaluate));
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "volatile->retry                      : %s",
            text(retry));
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "volatile->startupDelay               : %s",
            text(startupDelay));
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "volatile->badSynchs                  : %u",
            badSynchs);
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "volatile->nextDws                    : %s",
            MicroServiceToString(nextDws));
    if (nextCall.tv_sec >= now.tv_sec) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityDebug,
                "volatile->nextCall                   : %i seconds from now",
                static_cast<int>(nextCall.tv_sec - now.tv_sec));
    } else {
        ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "volatile->nextCall is in the past!");
    }
    if (lastCall.tv_sec <= now.tv_sec) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityDebug,
                "volatile->lastCall                   : %i seconds ago",
                static_cast<int>(now.tv_sec - lastCall.tv_sec));
    } else {
        ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "volatile->lastCall is in the future!");
    }
}

}  // namespace Core
}  // namespace Zel
