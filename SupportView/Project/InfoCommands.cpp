#include "SupportView/Project/InfoCommands.h"

#include <cstdio>
#include <memory>

#include "Core/Platform/Logger.h"
#include "SupportView/Base/CommandManager.h"
#include "SupportView/Base/SupportViewManager.h"
#include "SupportView/Platform/Time.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Project/InfoCommands";

// A configuration file larger than this is not the one we mean.
constexpr size_t kMaxConfigBytes = 64 * 1024;

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

Json::Value capability(const char* name, const char* description, const Json::Value& value) {
    Json::Value entry(Json::objectValue);
    entry["NAME"] = name;
    entry["DESCRIPTION"] = description;
    entry["VALUE"] = value;
    return entry;
}
}  // namespace

GetAvailableCommands::GetAvailableCommands()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS", 1, 0, 0, CommandOperationExecute}) {}

unsigned CommandGetAvailableCommands::executeHandler(const Json::Value& inputs, Json::Value& data) {
    CommandManager::Instance().reportAvailableCommands(inputs, data);
    return CommandResultSuccess;
}

GetAvailableLocales::GetAvailableLocales()
    : BuiltinCommand({"FFFFFF_LIVE_SUPPORT_COMMAND_GET_AVAILABLE_LOCALES", 1, 0, 500,
                      CommandOperationExecute}) {}

unsigned CommandGetAvailableLocales::executeHandler(const Json::Value&, Json::Value& data) {
    data["Accept-Language"] = "en-US,";  // the trailing comma is what the service expects
    data["DEFAULT_LOCALE"] = "en-US";
    return CommandResultSuccess;
}

CheckForUpdates::CheckForUpdates()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES", 1, 0, 2000, CommandOperationExecute}) {}

// A device build answers through the plug-in.
unsigned CommandCheckForUpdates::executeHandler(const Json::Value&, Json::Value& data) {
    data["SOFTWARE_CURRENT_FLAG"] = true;
    return CommandResultSuccess;
}

GetDeviceCapabilities::GetDeviceCapabilities()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_GET_DEVICE_CAPABILITIES", 1, 0, 50, CommandOperationExecute}) {}

unsigned CommandGetDeviceCapabilities::executeHandler(const Json::Value&, Json::Value& data) {
    Json::Value resolution(Json::objectValue);
    resolution["HEIGHT"] = 1080;
    resolution["WIDTH"] = 1920;
    Json::Value specific(Json::arrayValue);
    specific.append("TEST_VALUE");
    specific.append("SOME_OTHER_VALUE");
    specific.append("indicator");
    data["FFFFFF_PHYSICAL_DISPLAY_ASPECT_RATIO"] =
        capability("AspectRatio", "AspectRatioDesc", "16:9");
    data["FFFFFF_PHYSICAL_DISPLAY_RESOLUTION"] =
        capability("DisplayResolution", "DisplayResolutionDesc", resolution);
    data["002102_SPECIFIC_CAPABILITY"] = capability(
        "Specific Capability", "This represents a custom device specific capability", specific);
    return CommandResultSuccess;
}

GetDeviceInfo::GetDeviceInfo()
    : BuiltinCommand({"FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO", 1, 0, 50, CommandOperationExecute}) {}

unsigned CommandGetDeviceInfo::executeHandler(const Json::Value&, Json::Value& data) {
    CommandManager& manager = CommandManager::Instance();
    std::string opid = manager.getOpid();
    if (opid.size() < 6) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error getting the OUI from opid %s.",
                opid.c_str());
        return CommandResultInvalidParameter;
    }
    data["OUI"] = opid.substr(0, 6);
    data["MODEL_GROUP"] = opid.substr(6, 4);
    data["NRDEVID"] = manager.getId();
    data["ESN"] = manager.getEsn();
    data["MAC"] = manager.getMac();
    data["CURRENT_DATE"] = Time::GetCurrentDateTime();
    // Stub dates until the device supplies its own.
    data["MANUFACTURED_DATE"] = "2015-01-28T17:45:03Z";
    data["INITIAL_POWER_ON_DATE"] = "2015-12-02T08:23:05Z";
    data["UPTIME_SECONDS"] = static_cast<Json::UInt64>(Time::GetUptime());
    data["MFG_SOFTWARE_VERSION"] = manager.getSwVersion();
    data["MFG_COMPANY_NAME"] = manager.getBrand();
    data["MFG_HARDWARE_MODEL"] = manager.getModel();
    return CommandResultSuccess;
}

LbrLookup::LbrLookup()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_COMMAND_LBR_LOOKUP", 1, 0, 250, CommandOperationExecute}) {}

unsigned CommandLbrLookup::executeHandler(const Json::Value&, Json::Value& data) {
    std::string region;
    if (!SupportViewManager::Instance().getSvLbrAwsDomain(region)) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError,
                "Error getting the latency based region.  Returning empty string.");
        region.clear();
    }
    data["REGION_NAME"] = region;
    return CommandResultSuccess;
}

GetDeviceConfig::GetDeviceConfig()
    : BuiltinCommand(
          {"FFFFFF_LIVE_SUPPORT_GET_DEVICE_CONFIG", 3, 0, 250, CommandOperationExecute}) {}

unsigned CommandGetDeviceConfig::executeHandler(const Json::Value&, Json::Value& data) {
    ZEL_LOG(ServiceSv, CategoryFlow, SeverityInfo,
            "Stubbed implementation of getting the Device Config.");
    std::unique_ptr<FILE, FileCloser> file(fopen("/etc/hosts", "rb"));
    if (!file) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Opening File.");
        return 1;
    }
    std::string content(kMaxConfigBytes, '\0');
    size_t got = fread(&content[0], 1, content.size(), file.get());
    if (ferror(file.get())) {
        ZEL_LOG(ServiceSv, CategoryFlow, SeverityError, "Error Reading File.");
        return 1;
    }
    content.resize(got);
    data["DEVICE_CONFIG"] = content;
    return CommandResultSuccess;
}

}  // namespace Sv
}  // namespace Zel
