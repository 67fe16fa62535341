#pragma once

#include <string>

#include "Core/Platform/FileUtil.h"

namespace Zel {
namespace Core {

class CoreConfig;

// Knows where a set of persisted values lives: the persistent path of the
// configuration, the base name of the values file and the base name of the
// token file that keeps a spare copy of the cloud token.
class PersistentBase {
public:
    explicit PersistentBase(const CoreConfig* config,
                            const std::string& valuesBaseName = "coreValues",
                            const std::string& tokenBaseName = "coreToken");
    virtual ~PersistentBase() = default;
    PersistentBase(const PersistentBase&) = delete;
    PersistentBase& operator=(const PersistentBase&) = delete;

    // Removes the values file and the token file (factory reset).
    void drop();

    // The token file: its whole body is the token. Each call logs a structured
    // record named after the token base name plus "Load" or "Store"; the token
    // itself never appears in the log.
    bool loadTokenFile(std::string& token);
    bool storeTokenFile(const std::string& token);

    // A token goes into an Authorization header as it stands: printable
    // ASCII only, and of a sane length.
    static constexpr size_t kMaxTokenBytes = 8192;
    static bool IsUsableToken(const std::string& token);

    const CoreConfig* getConfig() const { return config_; }
    // Empty when there is no configuration.
    std::string getPersistentPath() const;
    const std::string& getValuesBaseName() const { return valuesBaseName_; }
    const std::string& getTokenBaseName() const { return tokenBaseName_; }

protected:
    bool storeValuesFile(const std::string& content);
    bool loadValuesFile(std::string& content, const FileUtil::Validator& usable);

private:
    void logTestBackupToken(const std::string& name, const std::string& token, bool success);

    const CoreConfig* config_;
    std::string valuesBaseName_;
    std::string tokenBaseName_;
};

}  // namespace Core
}  // namespace Zel
