#include "Core/Base/PersistentBase.h"

#include <json/value.h>

#include "Core/Base/CoreConfig.h"
#include "Core/Platform/FileUtil.h"
#include "Core/Platform/Logger.h"

namespace {
constexpr const char* kLogSource = "Base/PersistentBase";
}  // namespace

namespace Zel {
namespace Core {

PersistentBase::PersistentBase(const CoreConfig* config, const std::string& valuesBaseName,
                               const std::string& tokenBaseName)
    : config_(config), valuesBaseName_(valuesBaseName), tokenBaseName_(tokenBaseName) {}

std::string PersistentBase::getPersistentPath() const {
    return config_ != nullptr ? config_->getPersistentPath() : std::string();
}

// Without a configuration there is no directory, and nothing is touched
// (an empty directory would otherwise mean the file system root).
void PersistentBase::drop() {
    if (config_ == nullptr) {
        return;
    }
    FileUtil::Drop(getPersistentPath(), valuesBaseName_);
    FileUtil::Drop(getPersistentPath(), tokenBaseName_);
}

bool PersistentBase::loadTokenFile(std::string& token) {
    token.clear();
    bool loaded = config_ != nullptr && FileUtil::Load(getPersistentPath(), tokenBaseName_, token);
    if (!loaded) {
        token.clear();
    }
    logTestBackupToken(tokenBaseName_ + "Load", token, loaded);
    return loaded;
}

// An empty token is not worth keeping: the file goes instead.
void PersistentBase::storeTokenFile(const std::string& token) {
    if (config_ == nullptr) {
        logTestBackupToken(tokenBaseName_ + "Store", token, false);
        return;
    }
    if (token.empty()) {
        FileUtil::Drop(getPersistentPath(), tokenBaseName_);
    } else {
        FileUtil::Store(getPersistentPath(), tokenBaseName_, token);
    }
    logTestBackupToken(tokenBaseName_ + "Store", token, true);
}

void PersistentBase::storeValuesFile(const std::string& content) {
    if (config_ != nullptr) {
        FileUtil::Store(getPersistentPath(), valuesBaseName_, content);
    }
}

bool PersistentBase::loadValuesFile(std::string& content) {
    return config_ != nullptr && FileUtil::Load(getPersistentPath(), valuesBaseName_, content);
}

// The token is a credential: the record only says whether there was one.
void PersistentBase::logTestBackupToken(const std::string& name, const std::string& token,
                                        bool success) {
    Json::Value details(Json::objectValue);
    details["success"] = success;
    details["tokenEmpty"] = token.empty();
    Json::Value record(Json::objectValue);
    record[name] = details;
    Logger::Instance().logJson(kLogSource, __LINE__, __func__, ServiceCore, record);
}

}  // namespace Core
}  // namespace Zel
