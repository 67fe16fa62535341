#pragma once

#include "SupportView/Base/CommandBase.h"

namespace Zel {
namespace Sv {

// How a built-in command presents itself: one row of the command table.
struct CommandTraits {
    const char* name;
    int type;
    unsigned version;
    unsigned timeToComplete;
    unsigned operations;  // CommandOperation bits
};

// A command described by its traits, whose requests are handled by `Handler`.
template <typename Handler>
class BuiltinCommand : public CommandBase {
public:
    explicit BuiltinCommand(const CommandTraits& traits) : traits_(traits) {}

    std::string name() const override { return traits_.name; }
    int type() const override { return traits_.type; }
    unsigned version() const override { return traits_.version; }
    unsigned timeToComplete() const override { return traits_.timeToComplete; }
    CommandOperation supportedOperations() const override {
        return static_cast<CommandOperation>(traits_.operations);
    }
    CommandHandler* create() const override { return new Handler(*this); }

private:
    CommandTraits traits_;
};

}  // namespace Sv
}  // namespace Zel
