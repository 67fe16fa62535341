#include "SupportView/Base/CommandExecutor.h"

#include <json/writer.h>

#include <memory>

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "SupportView/Base/CommandHandler.h"
#include "SupportView/Base/CommandManager.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/CommandExecutor";
}  // namespace

CommandOperation CommandExecutor::getOperationFromString(const std::string& text) {
    if (text.empty() || text == "EXECUTE") {
        return CommandOperationExecute;
    }
    if (text == "GET") {
        return CommandOperationGet;
    }
    if (text == "DESCRIPTION") {
        return CommandOperationDescription;
    }
    if (text == "SESSION_TERMINATE") {
        return CommandOperationSessionTerminate;
    }
    return CommandOperationNone;
}

void CommandExecutor::print(const char* what, const Json::Value& document) {
    if (!Logger::Instance().test(ServiceSv, CategoryFlow, SeverityDebug)) {
        return;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "   ";
    std::string text = Json::writeString(builder, document);
    if (text.size() <= kMaxPrintedBytes) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug, "Printing the %s JSON (%zu bytes):\n%s",
                what, text.size(), text.c_str());
    } else {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug,
                "Printing the %s JSON (%zu bytes): suppressed due to size...", what, text.size());
    }
}

void CommandExecutor::processCommands(const Json::Value& batch, Json::Value& answer) {
    answer = Json::Value(Json::objectValue);
    Json::Value& responses = answer["RESPONSES"] = Json::Value(Json::arrayValue);
    const Json::Value& requests = JsonUtil::Member(batch, "REQUESTS");
    if (!requests.isArray()) {
        return;
    }
    for (const Json::Value& request : requests) {
        Json::Value response;
        processCommand(request, response);
        responses.append(response);
    }
}

void CommandExecutor::processCommand(const Json::Value& request, Json::Value& response) {
    print("input", request);
    const Json::Value& command = JsonUtil::Member(request, "COMMAND");
    std::string name;
    JsonUtil::GetString(JsonUtil::Member(command, "NAME"), name);
    CommandContext context;
    const Json::Value& operation = JsonUtil::Member(command, "OPERATION");
    std::string operationText;
    if (operation.isNull() || JsonUtil::GetString(operation, operationText)) {
        context.operation = getOperationFromString(operationText);
    }
    JsonUtil::GetUInt32(JsonUtil::Member(command, "VERSION"), context.version);
    // A command without inputs may leave "INPUTS" out.
    const Json::Value& given = JsonUtil::Member(request, "INPUTS");
    Json::Value inputs = given.isNull() && !(request.isObject() && request.isMember("INPUTS"))
                             ? Json::Value(Json::objectValue)
                             : given;

    Json::Value outputs(Json::arrayValue);
    unsigned result = CommandResultSuccess;
    CommandManager::CommandPtr found = CommandManager::Instance().find(name);
    if (!found) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Command Name not found!");
    } else {
        std::unique_ptr<CommandHandler> handler(found->create());
        if (!handler) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Command Handler not found!");
        } else {
            result = handler->performOperation(context, inputs, outputs);
        }
    }
    if (!outputs.empty() && outputs[0].isObject()) {
        outputs[0]["LOCALE"] = "en-US";
    }
    response = Json::Value(Json::objectValue);
    response["COMMAND"] = command;
    response["RESULT"] = result;
    response["OUTPUTS"] = outputs;
    print("output", response);
}

}  // namespace Sv
}  // namespace Zel
