#pragma once

#include <mutex>
#include <string>

#include "SupportView/Base/BuiltinCommand.h"
#include "SupportView/Base/CommandHandler.h"

namespace Zel {
namespace Sv {

// The on-screen remote that shows the viewer what the support agent presses:
// whether it is shown, and where. The drawing is the device's; the portable
// build only logs.
class TrainingRemote {
public:
    static TrainingRemote& Instance();

    static bool IsState(const std::string& state);
    static bool IsLocation(const std::string& location);

    std::string state();
    std::string location();
    // False for a value outside the known set.
    bool updateState(const std::string& state);
    bool updateLocation(const std::string& location);

    // A session starts, or ends: back to hidden, in the default place.
    void initialize();
    void terminate();

private:
    TrainingRemote();
    void applyState(const std::string& state);
    void applyLocation(const std::string& location);

    std::mutex mutex_;
    std::string state_;
    std::string location_;
};

class CommandTrainingRemoteState : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned descriptionHandler(Json::Value& outputs) override;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
    unsigned getHandler(const Json::Value& inputs, Json::Value& data) override;
};
class TrainingRemoteState : public BuiltinCommand<CommandTrainingRemoteState> {
public:
    TrainingRemoteState();
};

class CommandTrainingRemoteLocation : public CommandHandler {
public:
    using CommandHandler::CommandHandler;
    unsigned descriptionHandler(Json::Value& outputs) override;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
    unsigned getHandler(const Json::Value& inputs, Json::Value& data) override;
};
class TrainingRemoteLocation : public BuiltinCommand<CommandTrainingRemoteLocation> {
public:
    TrainingRemoteLocation();
};

}  // namespace Sv
}  // namespace Zel
