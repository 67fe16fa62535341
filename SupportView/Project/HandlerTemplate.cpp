#include "SupportView/Project/HandlerTemplate.h"

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Project/HandlerTemplate";
}  // namespace

HandlerTemplate::HandlerTemplate()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_COMMAND_HANDLER_TEMPLATE", 3, 0, 250,
           CommandOperationExecute | CommandOperationGet | CommandOperationDescription}) {}

unsigned CommandHandlerTemplate::descriptionHandler(Json::Value&) {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "%s descriptionHandler",
            command().name().c_str());
    return CommandResultSuccess;
}

unsigned CommandHandlerTemplate::executeHandler(const Json::Value&, Json::Value&) {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "%s executeHandler", command().name().c_str());
    return CommandResultSuccess;
}

unsigned CommandHandlerTemplate::getHandler(const Json::Value&, Json::Value&) {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "%s getHandler", command().name().c_str());
    return CommandResultSuccess;
}

}  // namespace Sv
}  // namespace Zel
