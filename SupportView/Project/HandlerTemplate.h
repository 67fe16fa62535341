#pragma once

#include "SupportView/Base/BuiltinCommand.h"
#include "SupportView/Base/CommandHandler.h"

namespace Zel {
namespace Sv {

// The pattern for a new command: copy both classes, rename them, fill in the
// handlers the command supports and register it in CommandManager. Never
// registered itself.
class CommandHandlerTemplate : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned descriptionHandler(Json::Value& outputs) override;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
    unsigned getHandler(const Json::Value& inputs, Json::Value& data) override;
};
class HandlerTemplate : public BuiltinCommand<CommandHandlerTemplate> {
public:
    HandlerTemplate();
};

}  // namespace Sv
}  // namespace Zel
