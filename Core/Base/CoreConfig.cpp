#include "Core/Base/CoreConfig.h"

#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Core/Platform/Injector.h"
#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace {
constexpr const char* kLogSource = "Base/CoreConfig";

const char* boolText(bool value) {
    return value ? "true" : "false";
}

// Completes a relative path from the working directory. Only a completed path
// is checked: an absolute path is the integrator's explicit choice and may
// legitimately appear later (a mount point, say).
bool completeRelativePath(std::string& path) {
    if (!path.empty() && path[0] == '/') {
        return false;
    }
    path = "/" + path;
    char cwd[1024];
    if (getcwd(cwd, sizeof(cwd)) != nullptr) {
        path = cwd + path;
    }
    return true;
}

bool isUsableDirectory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

void appendSlash(std::string& path) {
    if (path.empty() || path.back() != '/') {
        path += '/';
    }
}

}  // namespace

namespace Zel {
namespace Core {

CoreConfig::CoreConfig(const char* text) {
    setCustomValues();

    Json::Value root;
    if (JsonUtil::Parse(text, root) && root.isObject() && root.isMember("core")) {
        // Loggers and injectors are only configured together with "core"; the
        // loggers come first so that a refused key below reaches them.
        Json::Value loggers = root.get("loggers", Json::Value());
        if (!loggers.isNull()) {
            Logger::Instance().initialize(loggers);
        }
        const Json::Value injectors = root.get("injectors", Json::Value());
        if (!injectors.isNull()) {
            Injector::Instance().initialize(injectors);
        }

        // A present key that cannot be read keeps the current value, with a
        // warning: configuration faults must never stop the agent.
        const Json::Value& core = JsonUtil::Member(root, "core");
        JsonUtil::ReadBool(core, "skipCurlGlobalInit", skipCurlGlobalInit_);
        JsonUtil::ReadBool(core, "skipSslCryptoInit", skipSslCryptoInit_);
        JsonUtil::ReadString(core, "persistentPath", persistentPath_);
        JsonUtil::ReadString(core, "temporaryPath", temporaryPath_);
        JsonUtil::ReadBool(core, "enableSwVersionSimulation", enableSwVersionSimulation_);
        JsonUtil::ReadString(core, "initialSimulatedSwVersion", initialSimulatedSwVersion_);
    }

    if (completeRelativePath(persistentPath_) && !isUsableDirectory(persistentPath_)) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "PERSISTENT DIRECTORY %s IS NOT USABLE!",
                persistentPath_.c_str());
    }
    appendSlash(persistentPath_);

    if (completeRelativePath(temporaryPath_) && !isUsableDirectory(temporaryPath_)) {
        ZEL_LOG(ServiceCore, CategoryState, SeverityError, "TEMPORARY DIRECTORY %s IS NOT USABLE!",
                temporaryPath_.c_str());
    }
    appendSlash(temporaryPath_);
}

void CoreConfig::setCustomValues() {}

void CoreConfig::logStateDebug() const {
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "config->skipCurlGlobalInit           : %s",
            boolText(skipCurlGlobalInit_));
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "config->skipSslCryptoInit            : %s",
            boolText(skipSslCryptoInit_));
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "config->persistentPath               : %s",
            persistentPath_.c_str());
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "config->temporaryPath                : %s",
            temporaryPath_.c_str());
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "config->enableSwVersionSimulation    : %s",
            boolText(enableSwVersionSimulation_));
    ZEL_LOG(ServiceCore, CategoryState, SeverityDebug, "config->initialSimulatedSwVersion    : %s",
            initialSimulatedSwVersion_.c_str());
}

}  // namespace Core
}  // namespace Zel
