#pragma once

#include <string>
#include <vector>

#include "SupportView/Base/BuiltinCommand.h"
#include "SupportView/Base/CommandHandler.h"

namespace Zel {
namespace Sv {

// The commands that act on the device. Most are stubs in the portable
// build; the vendor plug-in replaces them by name.

class CommandRemoteButton : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned descriptionHandler(Json::Value& outputs) override;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
    // Every button name "BUTTONS" accepts, in the order the description lists them.
    static const std::vector<std::string>& Buttons();
};
class RemoteButton : public BuiltinCommand<CommandRemoteButton> {
public:
    RemoteButton();
};

class CommandSetDateTime : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class SetDateTime : public BuiltinCommand<CommandSetDateTime> {
public:
    SetDateTime();
};

class CommandResetFactoryDefaults : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class ResetFactoryDefaults : public BuiltinCommand<CommandResetFactoryDefaults> {
public:
    ResetFactoryDefaults();
};

class CommandProductReturnPreprocess : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class ProductReturnPreprocess : public BuiltinCommand<CommandProductReturnPreprocess> {
public:
    ProductReturnPreprocess();
};

}  // namespace Sv
}  // namespace Zel
