#pragma once

#include "SupportView/Base/BuiltinCommand.h"
#include "SupportView/Base/CommandHandler.h"

namespace Zel {
namespace Sv {

// The support agent's controls of screen streaming: the stream's
// parameters, the relay and start/stop, and the captured layers. They are
// registered only when video is available.

class CommandMediaStreamParams : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned descriptionHandler(Json::Value& outputs) override;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
    unsigned getHandler(const Json::Value& inputs, Json::Value& data) override;
};
class MediaStreamParams : public BuiltinCommand<CommandMediaStreamParams> {
public:
    MediaStreamParams();
};

class CommandMediaStreamTransportControl : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned descriptionHandler(Json::Value& outputs) override;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
    unsigned getHandler(const Json::Value& inputs, Json::Value& data) override;
};
class MediaStreamTransportControl : public BuiltinCommand<CommandMediaStreamTransportControl> {
public:
    MediaStreamTransportControl();
};

class CommandMediaStreamVideoLayers : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned descriptionHandler(Json::Value& outputs) override;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
    unsigned getHandler(const Json::Value& inputs, Json::Value& data) override;
};
class MediaStreamVideoLayers : public BuiltinCommand<CommandMediaStreamVideoLayers> {
public:
    MediaStreamVideoLayers();
};

}  // namespace Sv
}  // namespace Zel
