#pragma once

#include "SupportView/Base/BuiltinCommand.h"
#include "SupportView/Base/CommandHandler.h"

namespace Zel {
namespace Sv {

// The commands that report on the device.

class CommandGetAvailableCommands : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class GetAvailableCommands : public BuiltinCommand<CommandGetAvailableCommands> {
public:
    GetAvailableCommands();
};

class CommandGetAvailableLocales : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class GetAvailableLocales : public BuiltinCommand<CommandGetAvailableLocales> {
public:
    GetAvailableLocales();
};

class CommandCheckForUpdates : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class CheckForUpdates : public BuiltinCommand<CommandCheckForUpdates> {
public:
    CheckForUpdates();
};

class CommandGetDeviceCapabilities : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class GetDeviceCapabilities : public BuiltinCommand<CommandGetDeviceCapabilities> {
public:
    GetDeviceCapabilities();
};

class CommandGetDeviceInfo : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class GetDeviceInfo : public BuiltinCommand<CommandGetDeviceInfo> {
public:
    GetDeviceInfo();
};

class CommandLbrLookup : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class LbrLookup : public BuiltinCommand<CommandLbrLookup> {
public:
    LbrLookup();
};

class CommandGetDeviceConfig : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
};
class GetDeviceConfig : public BuiltinCommand<CommandGetDeviceConfig> {
public:
    GetDeviceConfig();
};

}  // namespace Sv
}  // namespace Zel
