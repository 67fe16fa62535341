#include "SoftwareUpdate/Base/SoftwareUpdateConfig.h"

#include <json/value.h>
#include <sys/stat.h>

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Su {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/SoftwareUpdateConfig";
}  // namespace

SoftwareUpdateConfig::SoftwareUpdateConfig(const char* text) {
    Json::Value root;
    if (text != nullptr && JsonUtil::Parse(text, root)) {
        const Json::Value& section = JsonUtil::Member(root, "softwareUpdate");
        JsonUtil::ReadString(section, "stagingLocation", stagingLocation_);
        JsonUtil::ReadUInt32(section, "maxBlockSizeBytes", maxBlockSizeBytes_);
    }
    size_t slash = stagingLocation_.rfind('/');
    std::string directory = slash == std::string::npos ? "." : stagingLocation_.substr(0, slash);
    if (directory.empty()) {
        directory = "/";
    }
    struct stat info {};
    if (stat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        ZEL_LOG(ServiceSu, CategoryState, SeverityError,
                "STAGING LOCATION DIRECTORY %s IS NOT USABLE!", directory.c_str());
    }
}

void SoftwareUpdateConfig::logStateDebug() const {
    ZEL_LOG(ServiceSu, CategoryState, SeverityDebug,
            "updateConfig->stagingLocation             : %s", stagingLocation_.c_str());
    ZEL_LOG(ServiceSu, CategoryState, SeverityDebug,
            "updateConfig->maxBlockSizeBytes           : %u", maxBlockSizeBytes_);
}

}  // namespace Su
}  // namespace Zel
