#pragma once

#include <string>

#include "SupportView/Base/CommandHandler.h"
#include "zel_korvane.h"

namespace Zel {
namespace Sv {

// A command the vendor plug-in registered: its record, copied, and the
// plug-in's handler behind every operation.
class KorvaneCommand : public CommandBase {
public:
    explicit KorvaneCommand(const ZelKorvaneCommand& record);

    std::string name() const override { return name_; }
    int type() const override { return static_cast<int>(record_.type); }
    unsigned version() const override { return record_.version; }
    unsigned timeToComplete() const override { return record_.timeToComplete; }
    CommandOperation supportedOperations() const override {
        return static_cast<CommandOperation>(record_.operations);
    }
    CommandHandler* create() const override;

    // Runs one operation; `out` receives the object the plug-in wrote.
    unsigned run(CommandOperation operation, const Json::Value& inputs, Json::Value& out) const;

private:
    std::string name_;
    ZelKorvaneCommand record_;
};

class CommandKorvane : public CommandHandler {
public:
    explicit CommandKorvane(const KorvaneCommand& command)
        : CommandHandler(command), korvane_(command) {}

    unsigned descriptionHandler(Json::Value& outputs) override;
    unsigned executeHandler(const Json::Value& inputs, Json::Value& data) override;
    unsigned getHandler(const Json::Value& inputs, Json::Value& data) override;
    unsigned sessionTerminateHandler() override;

private:
    const KorvaneCommand& korvane_;
};

}  // namespace Sv
}  // namespace Zel
