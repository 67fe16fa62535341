#include "Drmp/Base/DrmpConfig.h"

#include <json/value.h>

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Drmp {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/DrmpConfig";
}  // namespace

DrmpConfig::DrmpConfig(const char* text) {
    Json::Value root;
    if (text == nullptr || !JsonUtil::Parse(text, root)) {
        return;
    }
    const Json::Value& section = JsonUtil::Member(root, "drmp");
    JsonUtil::ReadBool(section, "enableEmulatedSecureCore", enableEmulatedSecureCore_);
    JsonUtil::ReadUInt32(section, "emulatedUlpkIndex", emulatedUlpkIndex_);
    JsonUtil::ReadString(section, "emulatedUlpk", emulatedUlpk_);
    JsonUtil::ReadString(section, "emulatedPotk", emulatedPotk_);
    JsonUtil::ReadString(section, "emulatedRecoveryPotk", emulatedRecoveryPotk_);
    JsonUtil::ReadString(section, "emulatedSupportedObjectNames", emulatedSupportedObjectNames_);
    JsonUtil::ReadString(section, "secureLibraryPath", secureLibraryPath_);
    JsonUtil::ReadString(section, "readyMarkerFile", readyMarkerFile_);
}

void DrmpConfig::logStateDebug() const {
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug,
            "drmpConfig->enableEmulatedSecureCore      : %s",
            enableEmulatedSecureCore_ ? "true" : "false");
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug,
            "drmpConfig->emulatedUlpkIndex             : %u", emulatedUlpkIndex_);
    // Keys are secrets: the log shows whether they are set, not what they are.
    auto secret = [](const std::string& value) { return value.empty() ? "" : "(set)"; };
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug,
            "drmpConfig->emulatedUlpk                  : %s", secret(emulatedUlpk_));
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug,
            "drmpConfig->emulatedPotk                  : %s", secret(emulatedPotk_));
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug,
            "drmpConfig->emulatedRecoveryPotk          : %s", secret(emulatedRecoveryPotk_));
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug,
            "drmpConfig->emulatedSupportedObjectNames  : %s",
            emulatedSupportedObjectNames_.c_str());
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug,
            "drmpConfig->secureLibraryPath             : %s", secureLibraryPath_.c_str());
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug,
            "drmpConfig->readyMarkerFile               : %s", readyMarkerFile_.c_str());
}

}  // namespace Drmp
}  // namespace Zel
