#include "SupportView/Project/ActionCommands.h"

#include <algorithm>

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"
#include "SupportView/Platform/Time.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Project/ActionCommands";

unsigned invalidParameter() {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Invalid Parameter.");
    return CommandResultInvalidParameter;
}
}  // namespace

RemoteButton::RemoteButton()
    : BuiltinCommand({"FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON", 1, 0, 500,
                      CommandOperationExecute | CommandOperationDescription}) {}

// Never destroyed: a detached task may read it while the host exits.
const std::vector<std::string>& CommandRemoteButton::Buttons() {
    static const std::vector<std::string>* buttons = new std::vector<std::string>{"3D",
                                                                                  "ASPECT",
                                                                                  "BACK",
                                                                                  "BLUE",
                                                                                  "CC",
                                                                                  "CHANNEL_DOWN",
                                                                                  "CHANNEL_RECALL",
                                                                                  "CHANNEL_UP",
                                                                                  "DOCUMENTATION",
                                                                                  "DOT",
                                                                                  "DOWN",
                                                                                  "ENTER",
                                                                                  "EXIT",
                                                                                  "FAST_FORWARD",
                                                                                  "GREEN",
                                                                                  "GUIDE",
                                                                                  "HOME",
                                                                                  "HYPHEN",
                                                                                  "INPUT",
                                                                                  "INTERNET_APPS",
                                                                                  "LEFT",
                                                                                  "LIGHT",
                                                                                  "MEDIA_PLAYER",
                                                                                  "MENU",
                                                                                  "MTS",
                                                                                  "NUM0",
                                                                                  "NUM1",
                                                                                  "NUM2",
                                                                                  "NUM3",
                                                                                  "NUM4",
                                                                                  "NUM5",
                                                                                  "NUM6",
                                                                                  "NUM7",
                                                                                  "NUM8",
                                                                                  "NUM9",
                                                                                  "PAGE_DOWN",
                                                                                  "PAGE_LEFT",
                                                                                  "PAGE_RIGHT",
                                                                                  "PAGE_UP",
                                                                                  "PAUSE",
                                                                                  "PICTURE_MODE",
                                                                                  "PIP",
                                                                                  "PLAY",
                                                                                  "POWER",
                                                                                  "QUICK_MENU",
                                                                                  "RECORD",
                                                                                  "RED",
                                                                                  "REWIND",
                                                                                  "RIGHT",
                                                                                  "SEARCH",
                                                                                  "SELECT_AUDIO",
                                                                                  "SELECT_AUX",
                                                                                  "SELECT_CABLE",
                                                                                  "SELECT_DVD",
                                                                                  "SELECT_DVR",
                                                                                  "SELECT_TV",
                                                                                  "SETUP",
                                                                                  "SKIP_NEXT",
                                                                                  "SKIP_PREVIOUS",
                                                                                  "SLEEP",
                                                                                  "STOP",
                                                                                  "SVC_NETFLIX",
                                                                                  "UNKNOWN",
                                                                                  "UP",
                                                                                  "VOL_DOWN",
                                                                                  "VOL_MUTE",
                                                                                  "VOL_UP",
                                                                                  "YELLOW"};
    return *buttons;
}

unsigned CommandRemoteButton::descriptionHandler(Json::Value& outputs) {
    Json::Value values(Json::arrayValue);
    for (const std::string& button : Buttons()) {
        values.append(button);
    }
    Json::Value input(Json::objectValue);
    input["NAME"] = "BUTTONS";
    input["TYPE"] = "ARRAY";
    input["VALUES"] = values;
    outputs["INPUTS"] = Json::Value(Json::arrayValue);
    outputs["INPUTS"].append(input);
    return CommandResultSuccess;
}

// Every name is checked before any button is pressed.
unsigned CommandRemoteButton::executeHandler(const Json::Value& inputs, Json::Value&) {
    const Json::Value& list = JsonUtil::Member(inputs, "BUTTONS");
    if (!list.isArray()) {
        return invalidParameter();
    }
    std::vector<std::string> pressed;
    for (const Json::Value& item : list) {
        std::string name;
        const auto& known = Buttons();
        if (!JsonUtil::GetString(item, name) ||
            std::find(known.begin(), known.end(), name) == known.end()) {
            return invalidParameter();
        }
        pressed.push_back(name);
    }
    for (const std::string& name : pressed) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo,
                "Stubbed implementation of remote button: %s", name.c_str());
    }
    return CommandResultSuccess;
}

SetDateTime::SetDateTime()
    : BuiltinCommand({"FFFFFF_LIVE_SUPPORT_SET_DATE_TIME", 1, 0, 250, CommandOperationExecute}) {}

unsigned CommandSetDateTime::executeHandler(const Json::Value& inputs, Json::Value& data) {
    std::string text;
    if (!JsonUtil::GetString(JsonUtil::Member(inputs, "DATETIME"), text) ||
        !Time::SetCurrentDateTime(text)) {
        return invalidParameter();
    }
    data["CURRENT_DATE"] = Time::GetCurrentDateTime();
    return CommandResultSuccess;
}

ResetFactoryDefaults::ResetFactoryDefaults()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_RESET_FACTORY_DEFAULTS", 3, 0, 1000, CommandOperationExecute}) {}

unsigned CommandResetFactoryDefaults::executeHandler(const Json::Value&, Json::Value&) {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo,
            "Stubbed implementation of reset to factory defaults");
    return CommandResultSuccess;
}

ProductReturnPreprocess::ProductReturnPreprocess()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_PRODUCT_RETURN_PREPROCESS", 3, 0, 500, CommandOperationExecute}) {}

unsigned CommandProductReturnPreprocess::executeHandler(const Json::Value&, Json::Value&) {
    return CommandResultSuccess;
}

}  // namespace Sv
}  // namespace Zel
