#pragma once

#include <json/value.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "SupportView/Base/CommandBase.h"

namespace Zel {
namespace Sv {

// The registry of commands, by name, and the device identity they report.
// A command is shared with the requests running it, so that emptying the
// registry at shut-down never pulls it from under a running task.
class CommandManager {
public:
    using CommandPtr = std::shared_ptr<const CommandBase>;

    static CommandManager& Instance();

    void initialize(const std::string& opid, const std::string& instance, const std::string& id,
                    const std::string& model, const std::string& brand, const std::string& esn,
                    const std::string& mac, const std::string& swVersion);
    void terminate();

    // Adds a command, or replaces the one of the same name; true when it replaced.
    bool registerCommand(CommandPtr command);
    // Null when there is no such command.
    CommandPtr find(const std::string& name) const;
    // The registry in name order.
    std::vector<CommandPtr> commands() const;

    std::string getOpid() const;
    std::string getInstance() const;
    std::string getId() const;
    std::string getModel() const;
    std::string getBrand() const;
    std::string getEsn() const;
    std::string getMac() const;
    std::string getSwVersion() const;

    void reportAvailableCommands(const Json::Value& inputs, Json::Value& outputs) const;
    static void convertOperationsToStrings(CommandOperation operations, Json::Value& array);

private:
    CommandManager() = default;
    std::string copy(const std::string& field) const;
    void registerBuiltins();
    void registerPluginCommands();

    mutable std::mutex mutex_;
    std::map<std::string, CommandPtr> registry_;
    std::string opid_, instance_, id_, model_, brand_, esn_, mac_, swVersion_;
};

}  // namespace Sv
}  // namespace Zel
