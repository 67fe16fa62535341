#include "SupportView/Base/CommandManager.h"

#include "Core/Platform/Logger.h"
#include "Core/Project/KorvanePlugin.h"
#include "SupportView/Base/CommandHandler.h"
#include "SupportView/Platform/Video.h"
#include "SupportView/Project/ActionCommands.h"
#include "SupportView/Project/InfoCommands.h"
#include "SupportView/Project/KorvaneCommand.h"
#include "SupportView/Project/MediaStreamCommands.h"
#include "SupportView/Project/NetworkDiagnostics.h"
#include "SupportView/Project/TrainingRemote.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/CommandManager";

// The plug-in hands its commands to this, one call each.
void registerFromPlugin(void* registry, const ZelKorvaneCommand* record) {
    if (registry == nullptr || record == nullptr || record->name == nullptr ||
        record->handler == nullptr) {
        return;
    }
    auto command = std::make_shared<KorvaneCommand>(*record);
    std::string name = command->name();
    if (static_cast<CommandManager*>(registry)->registerCommand(std::move(command))) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityWarning, "%s replaced by korvane\n",
                name.c_str());
    } else {
        ZEL_LOG(ServiceSv, CategoryState, SeverityInfo, "%s added by korvane\n", name.c_str());
    }
}
}  // namespace

CommandManager& CommandManager::Instance() {
    static CommandManager* instance = new CommandManager;  // outlives running tasks
    return *instance;
}

void CommandManager::initialize(const std::string& opid, const std::string& instance,
                                const std::string& id, const std::string& model,
                                const std::string& brand, const std::string& esn,
                                const std::string& mac, const std::string& swVersion) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        opid_ = opid;
        instance_ = instance;
        id_ = id;
        model_ = model;
        brand_ = brand;
        esn_ = esn;
        mac_ = mac;
        swVersion_ = swVersion;
        registry_.clear();
    }
    registerBuiltins();
    registerPluginCommands();
}

// The media-stream commands are left out when GStreamer cannot stream.
void CommandManager::registerBuiltins() {
    registerCommand(std::make_shared<GetAvailableCommands>());
    registerCommand(std::make_shared<GetAvailableLocales>());
    registerCommand(std::make_shared<CheckForUpdates>());
    registerCommand(std::make_shared<GetDeviceCapabilities>());
    registerCommand(std::make_shared<GetDeviceInfo>());
    registerCommand(std::make_shared<LbrLookup>());
    if (Video::Instance().isAvailable()) {
        registerCommand(std::make_shared<MediaStreamParams>());
        registerCommand(std::make_shared<MediaStreamTransportControl>());
        registerCommand(std::make_shared<MediaStreamVideoLayers>());
    }
    registerCommand(std::make_shared<RemoteButton>());
    registerCommand(std::make_shared<SetDateTime>());
    registerCommand(std::make_shared<TrainingRemoteLocation>());
    registerCommand(std::make_shared<TrainingRemoteState>());
    registerCommand(std::make_shared<NetworkDiagnostics>());
    registerCommand(std::make_shared<ResetFactoryDefaults>());
    registerCommand(std::make_shared<GetDeviceConfig>());
    registerCommand(std::make_shared<ProductReturnPreprocess>());
}

void CommandManager::registerPluginCommands() {
    korvane::KorvanePlugin& plugin = korvane::KorvanePlugin::Instance();
    if (plugin.createCommandsExt != nullptr) {
        plugin.createCommandsExt(registerFromPlugin, this);
    }
}

void CommandManager::terminate() {
    std::lock_guard<std::mutex> lock(mutex_);
    registry_.clear();
}

bool CommandManager::registerCommand(CommandPtr command) {
    std::string name = command->name();
    std::lock_guard<std::mutex> lock(mutex_);
    bool replaced = registry_.count(name) != 0;
    registry_[name] = std::move(command);
    return replaced;
}

CommandManager::CommandPtr CommandManager::find(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = registry_.find(name);
    return found == registry_.end() ? nullptr : found->second;
}

std::vector<CommandManager::CommandPtr> CommandManager::commands() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<CommandPtr> list;
    for (const auto& entry : registry_) {
        list.push_back(entry.second);
    }
    return list;
}

std::string CommandManager::copy(const std::string& field) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return field;
}

std::string CommandManager::getOpid() const {
    return copy(opid_);
}
std::string CommandManager::getInstance() const {
    return copy(instance_);
}
std::string CommandManager::getId() const {
    return copy(id_);
}
std::string CommandManager::getModel() const {
    return copy(model_);
}
std::string CommandManager::getBrand() const {
    return copy(brand_);
}
std::string CommandManager::getEsn() const {
    return copy(esn_);
}
std::string CommandManager::getMac() const {
    return copy(mac_);
}
std::string CommandManager::getSwVersion() const {
    return copy(swVersion_);
}

void CommandManager::convertOperationsToStrings(CommandOperation operations, Json::Value& array) {
    array = Json::Value(Json::arrayValue);
    if (operations & CommandOperationExecute) {
        array.append("EXECUTE");
    }
    if (operations & CommandOperationGet) {
        array.append("GET");
    }
    if (operations & CommandOperationSessionTerminate) {
        array.append("SESSION_TERMINATE");
    }
}

// Runs outside the registry's lock: describing a command creates a handler.
void CommandManager::reportAvailableCommands(const Json::Value&, Json::Value& outputs) const {
    outputs = Json::Value(Json::arrayValue);
    for (const CommandPtr& command : commands()) {
        std::string name = command->name();
        Json::Value entry(Json::objectValue);
        entry["ID"] = name;
        if (command->supportedOperations() & CommandOperationDescription) {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug,
                    "Calling command %s to get description.", name.c_str());
            std::unique_ptr<CommandHandler> handler(command->create());
            Json::Value description(Json::objectValue);
            if (!handler || handler->description(description) != CommandResultSuccess) {
                ZEL_LOG(ServiceSv, CategoryFlow, SeverityError,
                        "Failed to retrieve command description for command %s.", name.c_str());
            } else {
                entry["DESCRIPTION"] = description;
            }
        } else {
            ZEL_LOG(ServiceSv, CategoryFlow, SeverityDebug,
                    "Command %s does not have a command description.", name.c_str());
        }
        entry["VERSION"] = command->version();
        entry["ESTIMATED_EXEC_TIME_MSEC"] = command->timeToComplete();
        convertOperationsToStrings(command->supportedOperations(), entry["OPERATIONS"]);
        outputs.append(entry);
    }
}

}  // namespace Sv
}  // namespace Zel
