#include "Drmp/Base/DrmpPersistentValues.h"

#include <json/value.h>

#include <algorithm>

#include "Core/Platform/JsonUtil.h"
#include "Core/Platform/Logger.h"

namespace Zel {
namespace Drmp {

using namespace Core;

namespace {
constexpr const char* kLogSource = "Base/DrmpPersistentValues";
// A flood of results or states from a broken cloud must not grow the file
// without bound.
constexpr size_t kMaxEntries = 256;
}  // namespace

DrmpPersistentValues::DrmpPersistentValues(const CoreConfig* config)
    : PersistentBase(config, "drmpValues", "drmpToken") {}

// Never destroyed: DrmpControl may read it while a host returns from main.
const std::vector<DrmpPersistentValues::Field>& DrmpPersistentValues::Fields() {
    static const std::vector<Field>* fields = new std::vector<Field>{
        {"connectTimeoutMs", &DrmpPersistentValues::connectTimeoutMs},
        {"messageTimeoutMs", &DrmpPersistentValues::messageTimeoutMs},
        {"retryDelayFixedMs", &DrmpPersistentValues::retryDelayFixedMs},
        {"retryDelayVariedMs", &DrmpPersistentValues::retryDelayVariedMs},
        {"startupDelayFixedMs", &DrmpPersistentValues::startupDelayFixedMs},
        {"startupDelayVariedMs", &DrmpPersistentValues::startupDelayVariedMs},
        {"pollDelayFixedMs", &DrmpPersistentValues::pollDelayFixedMs},
        {"pollDelayVariedMs", &DrmpPersistentValues::pollDelayVariedMs},
    };
    return *fields;
}

void DrmpPersistentValues::set(uint32_t DrmpPersistentValues::*value, uint32_t number) {
    if (this->*value != number) {
        this->*value = number;
        persisted_ = false;
    }
}

void DrmpPersistentValues::setToken(const std::string& token) {
    token_ = token;
    backupToken_ = token;
    persisted_ = false;
    storeTokenFile(token);
}

void DrmpPersistentValues::clearBackupToken() {
    backupToken_.clear();
    storeTokenFile("");
    persisted_ = false;
}

void DrmpPersistentValues::setSeqNum(uint32_t value) {
    if (seqNum_ != value) {
        seqNum_ = value;
        persisted_ = false;
    }
}

void DrmpPersistentValues::addResult(const std::string& name, const std::string& operation,
                                     bool success) {
    if (results_.size() < kMaxEntries) {
        results_.push_back({name, operation, success});
        persisted_ = false;
    }
}

void DrmpPersistentValues::clearResults() {
    if (!results_.empty()) {
        results_.clear();
        persisted_ = false;
    }
}

void DrmpPersistentValues::clearStatus() {
    if (!status_.empty()) {
        status_.clear();
        persisted_ = false;
    }
}

bool DrmpPersistentValues::setStatus(const Json::Value& array) {
    if (!array.isArray()) {
        return false;
    }
    std::vector<std::string> seen;
    bool changed = false;
    for (const Json::Value& entry : array) {
        std::string name;
        std::string state;
        if (!JsonUtil::GetString(JsonUtil::Member(entry, "name"), name) ||
            !JsonUtil::GetString(JsonUtil::Member(entry, "state"), state)) {
            continue;
        }
        seen.push_back(name);
        auto stored = std::find_if(status_.begin(), status_.end(),
                                   [&](const Status& status) { return status.name == name; });
        if (stored == status_.end()) {
            if (status_.size() >= kMaxEntries) {
                continue;
            }
            ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "Inserting status for %s at state %s",
                    name.c_str(), state.c_str());
            status_.push_back({name, state});
            changed = true;
        } else if (stored->state != state) {
            ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo, "Updating status for %s to state %s",
                    name.c_str(), state.c_str());
            stored->state = state;
            changed = true;
        } else {
            ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug,
                    "Ignoring status for %s with state %s", name.c_str(), state.c_str());
        }
    }
    for (auto it = status_.begin(); it != status_.end();) {
        if (std::find(seen.begin(), seen.end(), it->name) == seen.end()) {
            ZEL_LOG(ServiceDrmp, CategoryState, SeverityInfo,
                    "Removing status for %s with state %s", it->name.c_str(), it->state.c_str());
            it = status_.erase(it);
            changed = true;
        } else {
            ++it;
        }
    }
    if (changed) {
        persisted_ = false;
    }
    return changed;
}

std::string DrmpPersistentValues::marshal() const {
    Json::Value body(Json::objectValue);
    body["token"] = token_;
    body["backupToken"] = backupToken_;
    body["seqNum"] = seqNum_;
    for (const Field& field : Fields()) {
        body[field.key] = this->*field.value;
    }
    Json::Value& results = body["results"] = Json::Value(Json::arrayValue);
    for (const Result& result : results_) {
        Json::Value item(Json::objectValue);
        item["name"] = result.name;
        item["operation"] = result.operation;
        item["success"] = result.success;
        results.append(item);
    }
    Json::Value& status = body["status"] = Json::Value(Json::arrayValue);
    for (const Status& entry : status_) {
        Json::Value item(Json::objectValue);
        item["name"] = entry.name;
        item["state"] = entry.state;
        status.append(item);
    }
    return JsonUtil::Compact(body);
}

bool DrmpPersistentValues::unmarshal(const std::string& text) {
    Json::Value body;
    if (!JsonUtil::Parse(text, body) || !body.isObject()) {
        return false;
    }
    std::string token;
    if (JsonUtil::GetString(JsonUtil::Member(body, "token"), token) && IsUsableToken(token)) {
        token_ = token;
    }
    std::string backup;
    if (JsonUtil::GetString(JsonUtil::Member(body, "backupToken"), backup) &&
        IsUsableToken(backup)) {
        backupToken_ = backup;
    }
    JsonUtil::GetUInt32(JsonUtil::Member(body, "seqNum"), seqNum_);
    for (const Field& field : Fields()) {
        JsonUtil::GetUInt32(JsonUtil::Member(body, field.key), this->*field.value);
    }
    results_.clear();
    const Json::Value& results = JsonUtil::Member(body, "results");
    if (results.isArray()) {
        for (const Json::Value& item : results) {
            Result result;
            if (results_.size() < kMaxEntries &&
                JsonUtil::GetString(JsonUtil::Member(item, "name"), result.name) &&
                JsonUtil::GetString(JsonUtil::Member(item, "operation"), result.operation) &&
                JsonUtil::GetBool(JsonUtil::Member(item, "success"), result.success)) {
                results_.push_back(result);
            }
        }
    }
    status_.clear();
    const Json::Value& status = JsonUtil::Member(body, "status");
    if (status.isArray()) {
        for (const Json::Value& item : status) {
            Status entry;
            if (status_.size() < kMaxEntries &&
                JsonUtil::GetString(JsonUtil::Member(item, "name"), entry.name) &&
                JsonUtil::GetString(JsonUtil::Member(item, "state"), entry.state)) {
                status_.push_back(entry);
            }
        }
    }
    return true;
}

void DrmpPersistentValues::load() {
    std::string text;
    if (loadValuesFile(text, [this](const std::string& content) {
            DrmpPersistentValues probe(getConfig());
            return probe.unmarshal(content);
        })) {
        unmarshal(text);
        persisted_ = true;
    }
    std::string token;
    if (loadTokenFile(token) && !token.empty()) {
        backupToken_ = token;
    }
}

bool DrmpPersistentValues::store() {
    persisted_ = storeValuesFile(marshal());
    return persisted_;
}

void DrmpPersistentValues::logStateDebug() const {
    if (!Logger::Instance().test(ServiceDrmp, CategoryState, SeverityDebug)) {
        return;
    }
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug, "drmpPersist->token                   : %s",
            token_.empty() ? "" : "(set)");
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug, "drmpPersist->backupToken             : %s",
            backupToken_.empty() ? "" : "(set)");
    ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug, "drmpPersist->seqNum                  : %u",
            seqNum_);
    for (const Field& field : Fields()) {
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug, "drmpPersist->%-24s: %u", field.key,
                this->*field.value);
    }
    for (size_t i = 0; i < results_.size(); ++i) {
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug, "drmpPersist->result[%02u] - %s/%s/%s",
                static_cast<unsigned>(i), results_[i].name.c_str(), results_[i].operation.c_str(),
                results_[i].success ? "true" : "false");
    }
    for (const Status& entry : status_) {
        ZEL_LOG(ServiceDrmp, CategoryState, SeverityDebug, "drmpPersist->status[%s] = %s",
                entry.name.c_str(), entry.state.c_str());
    }
}

}  // namespace Drmp
}  // namespace Zel
