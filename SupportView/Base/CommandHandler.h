#pragma once

#include <json/value.h>

#include "SupportView/Base/CommandBase.h"

namespace Zel {
namespace Sv {

// What a command does. A handler overrides the operations its command
// supports; the base versions answer CommandResultNotImplemented.
class CommandHandler {
public:
    explicit CommandHandler(const CommandBase& command) : command_(command) {}
    virtual ~CommandHandler() = default;
    CommandHandler(const CommandHandler&) = delete;
    CommandHandler& operator=(const CommandHandler&) = delete;

    virtual unsigned descriptionHandler(Json::Value& outputs);
    virtual unsigned executeHandler(const Json::Value& inputs, Json::Value& data);
    virtual unsigned getHandler(const Json::Value& inputs, Json::Value& data);
    virtual unsigned sessionTerminateHandler();

    // Checks the operation against the command, then runs it.
    unsigned performOperation(const CommandContext& context, const Json::Value& inputs,
                              Json::Value& outputs);
    unsigned description(Json::Value& outputs);
    unsigned execute(const Json::Value& inputs, Json::Value& outputs);
    unsigned get(const Json::Value& inputs, Json::Value& outputs);
    unsigned sessionTerminate();

protected:
    const CommandBase& command() const { return command_; }

private:
    using Operation = unsigned (CommandHandler::*)(const Json::Value&, Json::Value&);
    unsigned runWithData(const char* what, Operation operation, const Json::Value& inputs,
                         Json::Value& outputs);

    const CommandBase& command_;
};

}  // namespace Sv
}  // namespace Zel
