#include "tools/cloud/DrmpRegistry.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>

#include "tools/cloud/RecordedRequest.h"
#include "tools/cloud/Service.h"
#include "tools/cloud/SnapshotWait.h"

namespace ZelCloud {

namespace {

constexpr size_t kMaxKeyBytes = 1024;  // what the device's buffer holds

// 24 random bytes as hex; empty when the random source fails.
std::string RandomToken() {
    std::string token;
    return RandomHex(24, token) ? token : std::string();
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool FromHex(const std::string& hex, std::string& bytes) {
    if (hex.empty() || hex.size() % 2 != 0) {
        return false;
    }
    bytes.clear();
    for (size_t i = 0; i < hex.size(); i += 2) {
        int high = HexValue(hex[i]);
        int low = HexValue(hex[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes += static_cast<char>(high * 16 + low);
    }
    return true;
}

Json::Value Strings(const std::vector<std::string>& strings) {
    Json::Value list(Json::arrayValue);
    for (const std::string& text : strings) {
        list.append(text);
    }
    return list;
}

bool IsInstall(const Json::Value& operation) {
    return operation["operation"].isString() && operation["operation"].asString() == "install" &&
           operation["name"].isString();
}

}  // namespace

Json::Value DrmpRegistry::Result::toJson() const {
    Json::Value value(Json::objectValue);
    value["time"] = RecordedRequest::FormatTime(time);
    value["device"] = device;
    value["seqNum"] = seqNum;
    value["name"] = name;
    value["operation"] = operation;
    value["success"] = success;
    return value;
}

void DrmpRegistry::setKey(const std::string& device, const Key& key) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        keys_[device] = key;
    }
    changed_.notify_all();
}

const DrmpRegistry::Key* DrmpRegistry::keyFor(const std::string& cn,
                                              const std::string& deviceId) const {
    for (const std::string* name : {&cn, &deviceId}) {
        auto it = name->empty() ? keys_.end() : keys_.find(*name);
        if (it != keys_.end()) {
            return &it->second;
        }
    }
    auto any = keys_.find("");
    return any == keys_.end() ? nullptr : &any->second;
}

DrmpRegistry::TokenOutcome DrmpRegistry::issueToken(const std::string& cn,
                                                    const std::string& deviceId, int64_t index,
                                                    const std::string& hmac, std::string& token,
                                                    TokenCall& call) {
    TokenOutcome outcome = TokenOutcome::Issued;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        call.time = std::chrono::system_clock::now();
        call.deviceId = deviceId;
        call.index = index;
        const Key* key = keyFor(cn, deviceId);
        call.checked = key != nullptr;
        if (key != nullptr) {
            std::string expected = Hmac(key->bytes, deviceId);
            call.matched = !expected.empty() && index == key->index &&
                           hmac.size() == expected.size() &&
                           CRYPTO_memcmp(hmac.data(), expected.data(), hmac.size()) == 0;
        }
        Device& device = devices_[cn];
        device.cn = cn;
        device.tokenCalls.push_back(call);
        lastDevice_ = cn;
        if (call.checked && !call.matched) {
            outcome = TokenOutcome::Refused;
        } else {
            token = RandomToken();
            if (token.empty()) {
                outcome = TokenOutcome::NoRandom;
            } else {
                device.token = token;
                device.deviceId = deviceId;
            }
        }
    }
    changed_.notify_all();
    return outcome;
}

void DrmpRegistry::setState(Device& device, const std::string& name, const std::string& state) {
    for (auto& object : device.objects) {
        if (object.first == name) {
            object.second = state;
            return;
        }
    }
    device.objects.emplace_back(name, state);
}

void DrmpRegistry::takeOperation(Device& device, const Json::Value& operation, Orders& orders) {
    orders.operations.append(operation);
    // Pending again even when an earlier install of the name has come back.
    if (IsInstall(operation)) {
        setState(device, operation["name"].asString(), "pending");
    }
}

bool DrmpRegistry::work(const std::string& cn, const std::string& token, Work report,
                        Orders& orders) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = devices_.find(cn);
        if (it == devices_.end() || token.empty() || it->second.token != token) {
            return false;
        }
        Device& device = it->second;
        ++device.workCalls;
        device.gid = report.gid;
        device.gidCurrent = report.gidCurrent;
        device.supported = report.supported;
        lastDevice_ = cn;
        auto now = std::chrono::system_clock::now();
        for (Result& result : report.results) {
            result.time = now;
            result.device = cn;
            result.seqNum = report.seqNum;
            device.results.push_back(result);
            allResults_.push_back(result);
            // A failure leaves the state as it was.
            if (result.success && result.operation == "install") {
                setState(device, result.name, "available");
            } else if (result.success && result.operation == "delete") {
                device.objects.erase(
                    std::remove_if(device.objects.begin(), device.objects.end(),
                                   [&](const auto& object) { return object.first == result.name; }),
                    device.objects.end());
            }
        }
        // Ahead of both sides, so that neither a cloud nor a device starting over
        // ever sees a number again.
        device.seqNum = std::max(device.seqNum, report.seqNum) + 1;
        orders.seqNum = device.seqNum;
        while (!device.queued.empty() || !anyDevice_.empty()) {
            bool own =
                anyDevice_.empty() ||
                (!device.queued.empty() && device.queued.front().order < anyDevice_.front().order);
            std::deque<Queued>& queue = own ? device.queued : anyDevice_;
            takeOperation(device, queue.front().operation, orders);
            queue.pop_front();
        }
        for (const auto& object : device.objects) {
            Json::Value entry(Json::objectValue);
            entry["name"] = object.first;
            entry["state"] = object.second;
            orders.status.append(entry);
        }
    }
    changed_.notify_all();
    return true;
}

std::string DrmpRegistry::queue(const std::string& device,
                                const std::vector<Json::Value>& operations) {
    std::string target;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        target = device.empty() ? lastDevice_ : device;
        if (!target.empty() && devices_.count(target) == 0) {
            // A device may be named by the id it reports, too.
            for (const auto& entry : devices_) {
                if (!entry.second.deviceId.empty() && entry.second.deviceId == target) {
                    target = entry.first;
                    break;
                }
            }
        }
        for (const Json::Value& operation : operations) {
            Queued queued{nextOrder_++, operation};
            if (target.empty()) {
                anyDevice_.push_back(queued);
                continue;
            }
            Device& record = devices_[target];
            record.cn = target;
            record.queued.push_back(queued);
            if (IsInstall(operation)) {
                setState(record, operation["name"].asString(), "pending");
            }
        }
    }
    changed_.notify_all();
    return target;
}

std::vector<DrmpRegistry::Result> DrmpRegistry::results(const std::string& device) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (device.empty()) {
        return allResults_;
    }
    auto it = devices_.find(device);
    return it == devices_.end() ? std::vector<Result>() : it->second.results;
}

bool DrmpRegistry::waitForResults(size_t count, std::chrono::milliseconds timeout,
                                  const std::string& device) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        if (device.empty()) {
            return allResults_.size() >= count;
        }
        auto it = devices_.find(device);
        return it != devices_.end() && it->second.results.size() >= count;
    });
}

bool DrmpRegistry::waitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const {
    return WaitForSnapshot(
        mutex_, changed_, [this] { return toJsonLocked(); }, predicate, timeout);
}

Json::Value DrmpRegistry::toJson() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return toJsonLocked();
}

Json::Value DrmpRegistry::toJsonLocked() const {
    auto queuedToJson = [](const std::deque<Queued>& queue) {
        Json::Value list(Json::arrayValue);
        for (const Queued& queued : queue) {
            list.append(queued.operation);
        }
        return list;
    };
    Json::Value devices(Json::arrayValue);
    for (const auto& entry : devices_) {
        const Device& device = entry.second;
        Json::Value item(Json::objectValue);
        item["device"] = device.cn;
        item["deviceId"] = device.deviceId;
        item["token"] = device.token;
        // The key bytes stay in the cloud; the index tells which key it is.
        const Key* key = keyFor(device.cn, device.deviceId);
        item["keyKnown"] = key != nullptr;
        item["keyIndex"] = key != nullptr ? Json::Value(Json::Int64(key->index)) : Json::Value();
        item["seqNum"] = device.seqNum;
        item["workCalls"] = device.workCalls;
        item["gid"] = device.gid;
        item["gidCurrent"] = device.gidCurrent;
        item["supported"] = Strings(device.supported);
        item["queued"] = queuedToJson(device.queued);
        item["objects"] = Json::Value(Json::arrayValue);
        for (const auto& object : device.objects) {
            Json::Value state(Json::objectValue);
            state["name"] = object.first;
            state["state"] = object.second;
            item["objects"].append(state);
        }
        item["results"] = Json::Value(Json::arrayValue);
        for (const Result& result : device.results) {
            item["results"].append(result.toJson());
        }
        item["tokenCalls"] = Json::Value(Json::arrayValue);
        for (const TokenCall& call : device.tokenCalls) {
            Json::Value value(Json::objectValue);
            value["time"] = RecordedRequest::FormatTime(call.time);
            value["deviceId"] = call.deviceId;
            value["index"] = Json::Int64(call.index);
            value["checked"] = call.checked;
            value["matched"] = call.checked ? Json::Value(call.matched) : Json::Value();
            value["accepted"] = !call.checked || call.matched;
            item["tokenCalls"].append(value);
        }
        devices.append(item);
    }
    Json::Value result(Json::objectValue);
    result["devices"] = devices;
    result["anyDevice"] = queuedToJson(anyDevice_);
    result["keys"] = Json::Value(Json::arrayValue);
    for (const auto& entry : keys_) {
        Json::Value key(Json::objectValue);
        key["device"] = entry.first;
        key["index"] = Json::Int64(entry.second.index);
        result["keys"].append(key);
    }
    result["lastDevice"] = lastDevice_;
    return result;
}

bool DrmpRegistry::KeyFromJson(const Json::Value& fields, std::string& device, Key& key,
                               std::string& error) {
    if (!fields.isObject()) {
        error = "a key needs an object";
        return false;
    }
    const Json::Value& name = fields["device"];
    const Json::Value& index = fields["index"];
    const Json::Value& hex = fields["key"];
    if (!name.isNull() && !name.isString()) {
        error = "\"device\" must be a string";
    } else if (!index.isInt64() || index.asInt64() < 0 || index.asInt64() > 0xffffffffLL) {
        error = "\"index\" must be an integer from 0 to 4294967295";
    } else if (!hex.isString() || !FromHex(hex.asString(), key.bytes) ||
               key.bytes.size() > kMaxKeyBytes) {
        error = "\"key\" must be 1 to 1024 bytes in hex";
    } else {
        device = name.asString();
        key.index = index.asInt64();
        return true;
    }
    return false;
}

bool DrmpRegistry::OperationsFromJson(const Json::Value& value,
                                      std::vector<Json::Value>& operations, std::string& error) {
    if (!value.isObject() && !value.isArray()) {
        error = "\"operations\" must be an operation object or an array of them";
        return false;
    }
    std::vector<Json::Value> list;
    if (value.isObject()) {
        list.push_back(value);
    } else {
        for (const Json::Value& operation : value) {
            list.push_back(operation);
        }
    }
    for (Json::Value& operation : list) {
        if (!operation.isObject()) {
            error = "each operation must be an object";
            return false;
        }
        if (!operation.isMember("valueText")) {
            continue;
        }
        if (!operation["valueText"].isString() || operation.isMember("value")) {
            error = "\"valueText\" must be a string, and comes instead of \"value\"";
            return false;
        }
        std::string text = operation["valueText"].asString();
        operation.removeMember("valueText");
        operation["value"] = Base64(text);
        if (!operation.isMember("unencryptedSize")) {
            operation["unencryptedSize"] = Json::UInt64(text.size());
        }
    }
    operations = std::move(list);
    return true;
}

std::string DrmpRegistry::Hmac(const std::string& key, const std::string& message) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest,
             &length) == nullptr) {
        return {};
    }
    return Base64(std::string(reinterpret_cast<char*>(digest), length));
}

std::string DrmpRegistry::Base64(const std::string& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                 reinterpret_cast<const unsigned char*>(bytes.data()),
                                 static_cast<int>(bytes.size()));
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return text;
}

}  // namespace ZelCloud
