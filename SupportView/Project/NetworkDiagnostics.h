#pragma once

#include "SupportView/Base/BuiltinCommand.h"
#include "SupportView/Base/CommandHandler.h"

namespace Zel {
namespace Sv {

// Tests the television's network for the support agent: reachability,
// the radio and the speed, as a table of rows.
class CommandNetworkDiagnostics : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class NetworkDiagnostics : public BuiltinCommand<CommandNetworkDiagnostics> {
public:
    NetworkDiagnostics();
};

}  // namespace Sv
}  // namespace Zel
