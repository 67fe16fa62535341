#pragma once

#include <json/value.h>

#include <string>

#include "SupportView/Base/CommandBase.h"

namespace Zel {
namespace Sv {

// Runs command request documents against the registry and builds their
// response documents.
class CommandExecutor {
public:
    // A log line of a document longer than this is suppressed.
    static constexpr size_t kMaxPrintedBytes = 2048;

    // {"REQUESTS": [...]} in, {"RESPONSES": [...]} out, in the same order.
    static void processCommands(const Json::Value& batch, Json::Value& answer);
    static void processCommand(const Json::Value& request, Json::Value& response);
    static CommandOperation getOperationFromString(const std::string& text);

private:
    static void print(const char* what, const Json::Value& document);
};

}  // namespace Sv
}  // namespace Zel
