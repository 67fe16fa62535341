#include "SupportView/Base/SupportViewConfig.h"

#include <json/value.h>

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Sv {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SupportViewConfig";

const char* boolText(bool value) {
    return value ? "true" : "false";
}
}  // namespace

SupportViewConfig::SupportViewConfig(const char* text) {
    setCustomValues();
    Json::Value root;
    if (text == nullptr || !JsonUtil::Parse(text, root)) {
        return;
    }
    const Json::Value& section = JsonUtil::Member(root, "supportView");
    JsonUtil::ReadBool(section, "pauseSessionOnTerm", pauseSessionOnTerm_);
    JsonUtil::ReadBool(section, "allowRemoteSession", allowRemoteSession_);
    JsonUtil::ReadUInt32(section, "sessionCodeDigits", sessionCodeDigits_);
    if (sessionCodeDigits_ < kMinCodeDigits || sessionCodeDigits_ > kMaxCodeDigits) {
        ZEL_LOG(ServiceSv, CategoryState, SeverityWarning,
                "SupportView Session Code Digits set to illegal value of %u, defaulting to %u",
                sessionCodeDigits_, kDefaultCodeDigits);
        sessionCodeDigits_ = kDefaultCodeDigits;
    }
}

void SupportViewConfig::setCustomValues() {}

void SupportViewConfig::logStateDebug() const {
    ZEL_LOG(ServiceSv, CategoryState, SeverityDebug, "config->pauseSessionOnTerm           : %s",
            boolText(pauseSessionOnTerm_));
    ZEL_LOG(ServiceSv, CategoryState, SeverityDebug, "config->allowRemoteSession           : %s",
            boolText(allowRemoteSession_));
}

}  // namespace Sv
}  // namespace Zel
