#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Core/Base/PersistentBase.h"

namespace Zel {
namespace Drmp {

// What provisioning keeps across restarts: file "drmpValues" (the drmp token,
// sequence number, the cloud's delays and time-outs, results not yet
// reported, object states), and the token once more in "drmpToken", from
// which a lost token is recovered.
class DrmpPersistentValues : public Core::PersistentBase {
public:
    struct Result {
        std::string name;
        std::string operation;
        bool success = false;
    };
    struct Status {
        std::string name;
        std::string state;
    };

    explicit DrmpPersistentValues(const Core::CoreConfig* config);

    // Reads both files; defaults for what cannot be read.
    void load();
    // Writes the values file; true when it is on disk.
    bool store();
    bool isPersisted() const { return persisted_; }

    const std::string& getToken() const { return token_; }
    // A new token is also kept in the token file, for recovery.
    void setToken(const std::string& token);
    void clearToken() {
        token_.clear();
        persisted_ = false;
    }
    const std::string& getBackupToken() const { return backupToken_; }
    void clearBackupToken();

    uint32_t getSeqNum() const { return seqNum_; }
    void setSeqNum(uint32_t value);

    // The delays and time-outs the cloud hands out, by their answer keys.
    struct Field {
        const char* key;
        uint32_t DrmpPersistentValues::*value;
    };
    static const std::vector<Field>& Fields();
    uint32_t get(uint32_t DrmpPersistentValues::*value) const { return this->*value; }
    void set(uint32_t DrmpPersistentValues::*value, uint32_t number);

    const std::vector<Result>& getResults() const { return results_; }
    void addResult(const std::string& name, const std::string& operation, bool success);
    void clearResults();
    const std::vector<Status>& getStatus() const { return status_; }
    // Merges the cloud's "status" array; true when anything changed.
    bool setStatus(const Json::Value& array);
    void clearStatus();

    std::string marshal() const;
    bool unmarshal(const std::string& text);
    void logStateDebug() const;

    uint32_t connectTimeoutMs = 45000;
    uint32_t messageTimeoutMs = 60000;
    uint32_t retryDelayFixedMs = 15000;
    uint32_t retryDelayVariedMs = 15000;
    uint32_t startupDelayFixedMs = 0;
    uint32_t startupDelayVariedMs = 0;
    uint32_t pollDelayFixedMs = 3600000;
    uint32_t pollDelayVariedMs = 600000;

private:
    std::string token_;
    std::string backupToken_;
    uint32_t seqNum_ = 0;
    std::vector<Result> results_;
    std::vector<Status> status_;
    bool persisted_ = false;
};

}  // namespace Drmp
}  // namespace Zel
