#include "SupportView/Project/TrainingRemote.h"

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "SupportView/Base/SessionHooks.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Project/TrainingRemote";

constexpr const char* kEnabled = "ENABLED";
constexpr const char* kDisabled = "DISABLED";
constexpr const char* kInitialLocation = "LOWER_RIGHT";

// Where each location puts the remote on a 1920x1080 screen (its top left corner).
struct Location {
    const char* name;
    int x;
    int y;
};
constexpr Location kLocations[] = {
    {"BOTTOM", 860, 840},       {"CENTER", 860, 440},   {"LOWER_LEFT", 40, 840},
    {"LOWER_RIGHT", 1680, 840}, {"UPPER_LEFT", 40, 40}, {"UPPER_RIGHT", 1680, 40},
};

const Location* findLocation(const std::string& name) {
    for (const Location& location : kLocations) {
        if (name == location.name) {
            return &location;
        }
    }
    return nullptr;
}

Json::Value valueList(std::initializer_list<const char*> values) {
    Json::Value list(Json::arrayValue);
    for (const char* value : values) {
        list.append(value);
    }
    return list;
}

void describeInput(Json::Value& outputs, const char* name, const Json::Value& values) {
    Json::Value input(Json::objectValue);
    input["NAME"] = name;
    input["TYPE"] = "STRING";
    input["VALUES"] = values;
    outputs["INPUTS"] = Json::Value(Json::arrayValue);
    outputs["INPUTS"].append(input);
}

// `what` is "State" or "Location".
unsigned invalid(const char* what, const std::string& value) {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Invalid Training Remote %s: %s", what,
            value.c_str());
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Invalid Parameter.");
    return CommandResultInvalidParameter;
}
}  // namespace

TrainingRemote& TrainingRemote::Instance() {
    static TrainingRemote* instance = new TrainingRemote;  // used by detached tasks
    return *instance;
}

TrainingRemote::TrainingRemote() {
    applyState(kDisabled);
    applyLocation(kInitialLocation);
}

bool TrainingRemote::IsState(const std::string& state) {
    return state == kEnabled || state == kDisabled;
}

bool TrainingRemote::IsLocation(const std::string& location) {
    return findLocation(location) != nullptr;
}

std::string TrainingRemote::state() {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
}

std::string TrainingRemote::location() {
    std::lock_guard<std::mutex> lock(mutex_);
    return location_;
}

bool TrainingRemote::updateState(const std::string& state) {
    if (!IsState(state)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    applyState(state);
    return true;
}

bool TrainingRemote::updateLocation(const std::string& location) {
    if (!IsLocation(location)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    applyLocation(location);
    return true;
}

void TrainingRemote::applyState(const std::string& state) {
    state_ = state;
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Stubbed implementation of update state: %s",
            state.c_str());
}

void TrainingRemote::applyLocation(const std::string& location) {
    const Location* where = findLocation(location);
    location_ = location;
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo,
            "Stubbed implementation of update location: %s (%d, %d)", location.c_str(), where->x,
            where->y);
}

void TrainingRemote::initialize() {
    updateState(kDisabled);
    updateLocation(kInitialLocation);
}

void TrainingRemote::terminate() {
    updateState(kDisabled);
}

void TrainingRemoteSessionInitialize() {
    TrainingRemote::Instance().initialize();
}

void TrainingRemoteSessionTerminate() {
    TrainingRemote::Instance().terminate();
}

TrainingRemoteState::TrainingRemoteState()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_STATE", 1, 1, 250,
           CommandOperationExecute | CommandOperationGet | CommandOperationDescription}) {}

unsigned CommandTrainingRemoteState::descriptionHandler(Json::Value& outputs) {
    describeInput(outputs, "STATE", valueList({kEnabled, kDisabled}));
    return CommandResultSuccess;
}

unsigned CommandTrainingRemoteState::getHandler(const Json::Value&, Json::Value& data) {
    std::string state = TrainingRemote::Instance().state();
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Training Remote State: %s", state.c_str());
    data["STATE"] = state;
    return CommandResultSuccess;
}

unsigned CommandTrainingRemoteState::executeHandler(const Json::Value& inputs, Json::Value& data) {
    std::string state;
    JsonUtil::GetString(JsonUtil::Member(inputs, "STATE"), state);
    if (!TrainingRemote::Instance().updateState(state)) {
        return invalid("State", state);
    }
    data["STATE"] = state;
    return CommandResultSuccess;
}

TrainingRemoteLocation::TrainingRemoteLocation()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_LOCATION", 1, 1, 250,
           CommandOperationExecute | CommandOperationGet | CommandOperationDescription}) {}

unsigned CommandTrainingRemoteLocation::descriptionHandler(Json::Value& outputs) {
    Json::Value names(Json::arrayValue);
    for (const Location& location : kLocations) {
        names.append(location.name);
    }
    describeInput(outputs, "LOCATION", names);
    return CommandResultSuccess;
}

unsigned CommandTrainingRemoteLocation::getHandler(const Json::Value&, Json::Value& data) {
    std::string location = TrainingRemote::Instance().location();
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo, "Training Remote Location: %s",
            location.c_str());
    data["LOCATION"] = location;
    return CommandResultSuccess;
}

unsigned CommandTrainingRemoteLocation::executeHandler(const Json::Value& inputs,
                                                       Json::Value& data) {
    std::string location;
    JsonUtil::GetString(JsonUtil::Member(inputs, "LOCATION"), location);
    if (!TrainingRemote::Instance().updateLocation(location)) {
        return invalid("Location", location);
    }
    data["LOCATION"] = location;
    return CommandResultSuccess;
}

}  // namespace Sv
}  // namespace Zel
