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
    bool loaded = config_ != nullptr &&
                  FileUtil::Load(getPersistentPath(), tokenBaseName_, token, IsUsableToken);
    if (!loaded) {
        token.clear();
    }
    logTestBackupToken(tokenBaseName_ + "Load", token, loaded);
    return loaded;
}

// An empty token is not worth keeping: the file goes instead.
bool PersistentBase::storeTokenFile(const std::string& token) {
    bool stored = false;
    if (config_ != nullptr) {
        if (token.empty()) {
            FileUtil::Drop(getPersistentPath(), tokenBaseName_);
            stored = true;
        } else {
            stored = FileUtil::Store(getPersistentPath(), tokenBaseName_, token);
        }
    }
    logTestBackupToken(tokenBaseName_ + "Store", token, stored);
    return stored;
}

bool PersistentBase::IsUsableToken(const std::string& token) {
    if (token.size() > kMaxTokenBytes) {
        return false;
    }
    for (char c : token) {
        if (c < 0x21 || c > 0x7e) {
            return false;
        }
    }
    return true;
}

bool PersistentBase::storeValuesFile(const std::string& content) {
    return config_ != nullptr && FileUtil::Store(getPersistentPath(), valuesBaseName_, content);
}

bool PersistentBase::loadValuesFile(std::string& content, const FileUtil::Validator& usable) {
    return config_ != nullptr &&
           FileUtil::Load(getPersistentPath(), valuesBaseName_, content, usable);
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
