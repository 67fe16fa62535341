#include "SupportView/Base/CommandHandler.h"

#include "Core/Platform/Logger.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/CommandHandler";

// The one command that may be sent without an inputs object.
constexpr const char* kLbrLookup = "FFFFFF_LIVE_SUPPORT_COMMAND_LBR_LOOKUP";

bool isOutputItem(const Json::Value& data) {
    return data.isObject() && data.isMember("ID") && data.isMember("TYPE") && data.isMember("DATA");
}
}  // namespace

unsigned CommandHandler::descriptionHandler(Json::Value&) {
    return CommandResultNotImplemented;
}

unsigned CommandHandler::executeHandler(const Json::Value&, Json::Value&) {
    return CommandResultNotImplemented;
}

unsigned CommandHandler::getHandler(const Json::Value&, Json::Value&) {
    return CommandResultNotImplemented;
}

unsigned CommandHandler::sessionTerminateHandler() {
    return CommandResultNotImplemented;
}

unsigned CommandHandler::performOperation(const CommandContext& context, const Json::Value& inputs,
                                          Json::Value& outputs) {
    std::string name = command_.name();
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "%s %s", name.c_str(), "performOperation");
    if ((command_.supportedOperations() & context.operation) == 0) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "%s operation not supported", name.c_str());
        return CommandResultNotSupported;
    }
    switch (context.operation) {
        case CommandOperationDescription:
            return description(outputs);
        case CommandOperationExecute:
            return execute(inputs, outputs);
        case CommandOperationGet:
            return get(inputs, outputs);
        case CommandOperationSessionTerminate:
            return sessionTerminate();
        default:
            return CommandResultSuccess;
    }
}

unsigned CommandHandler::runWithData(const char* what, Operation operation,
                                     const Json::Value& inputs, Json::Value& outputs) {
    std::string name = command_.name();
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "%s %s", name.c_str(), what);
    if (!inputs.isObject() && name != kLbrLookup) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "%s Invalid Parameter for inputs",
                name.c_str());
        return CommandResultInvalidParameter;
    }
    if (!outputs.isArray()) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "%s Invalid Parameter for outputs",
                name.c_str());
        return CommandResultInvalidParameter;
    }
    Json::Value data(Json::objectValue);
    unsigned result = (this->*operation)(inputs, data);
    if (isOutputItem(data)) {
        outputs.append(data);
    } else if (!data.empty()) {
        Json::Value item(Json::objectValue);
        item["ID"] = "RESPONSE_DATA";
        item["TYPE"] = "JSON";
        item["DATA"] = data;
        outputs.append(item);
    }
    return result;
}

unsigned CommandHandler::execute(const Json::Value& inputs, Json::Value& outputs) {
    return runWithData("execute", &CommandHandler::executeHandler, inputs, outputs);
}

unsigned CommandHandler::get(const Json::Value& inputs, Json::Value& outputs) {
    return runWithData("get", &CommandHandler::getHandler, inputs, outputs);
}

unsigned CommandHandler::description(Json::Value& outputs) {
    std::string name = command_.name();
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "%s %s", name.c_str(), "description");
    if (!outputs.isObject()) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "%s Invalid Parameter for outputs",
                name.c_str());
        return CommandResultInvalidParameter;
    }
    return descriptionHandler(outputs);
}

unsigned CommandHandler::sessionTerminate() {
    std::string name = command_.name();
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "%s %s", name.c_str(), "sessionTerminate");
    return sessionTerminateHandler();
}

}  // namespace Sv
}  // namespace Zel
