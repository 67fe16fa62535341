#include "tools/cloud/DeviceRegistry.h"

#include "tools/cloud/Service.h"

namespace ZelCloud {

namespace {

// 24 random bytes as hex; empty when the random source fails.
std::string RandomToken() {
    std::string token;
    return RandomHex(24, token) ? token : std::string();
}

Json::Value QueuedToJson(const DeviceRegistry::Event& event) {
    Json::Value value(Json::objectValue);
    value["event"] = event.event;
    if (event.id) {
        value["id"] = *event.id;
    }
    if (!event.parameters.isNull()) {
        value["parameters"] = event.parameters;
    }
    return value;
}

}  // namespace

std::string DeviceRegistry::issueToken(const std::string& cn, const Json::Value& identity) {
    std::string token = RandomToken();
    std::lock_guard<std::mutex> lock(mutex_);
    Device& device = devices_[cn];
    device.cn = cn;
    device.gidToken = token;
    device.opidSeqNum = 0;
    device.gidSeqNum = 0;
    device.synchronized = false;
    device.identity = identity;
    return token;
}

const DeviceRegistry::Device* DeviceRegistry::findByToken(const std::string& cn,
                                                          const std::string& token) const {
    auto it = devices_.find(cn);
    if (it == devices_.end() || token.empty() || it->second.gidToken != token) {
        return nullptr;
    }
    return &it->second;
}

DeviceRegistry::Device* DeviceRegistry::findByToken(const std::string& cn,
                                                    const std::string& token) {
    return const_cast<Device*>(static_cast<const DeviceRegistry*>(this)->findByToken(cn, token));
}

bool DeviceRegistry::knows(const std::string& cn, const std::string& token) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return findByToken(cn, token) != nullptr;
}

Json::Value DeviceRegistry::EventToJson(Device& device, const Event& event) {
    Json::Value value(Json::objectValue);
    value["event"] = event.event;
    uint32_t id = event.id ? *event.id : device.nextEventId;
    if (id >= device.nextEventId) {
        device.nextEventId = id + 1;
    }
    value["id"] = id;
    value["parameters"] = event.parameters.isNull() ? Json::Value("") : event.parameters;
    return value;
}

bool DeviceRegistry::reportState(const std::string& cn, const std::string& token,
                                 const Json::Value& body, bool synchronized, uint32_t opidSeqNum,
                                 Device& answer, Json::Value& events) {
    std::lock_guard<std::mutex> lock(mutex_);
    Device* device = findByToken(cn, token);
    if (device == nullptr) {
        return false;
    }
    device->reported = body;
    device->synchronized = synchronized;
    device->opidSeqNum = opidSeqNum;
    events = Json::Value(Json::arrayValue);
    while (!device->events.empty() || !anyDevice_.empty()) {
        bool own = anyDevice_.empty() || (!device->events.empty() &&
                                          device->events.front().order < anyDevice_.front().order);
        std::deque<Event>& queue = own ? device->events : anyDevice_;
        events.append(EventToJson(*device, queue.front()));
        queue.pop_front();
    }
    if (!events.empty()) {
        ++device->gidSeqNum;
    }
    answer = *device;
    return true;
}

bool DeviceRegistry::notification(const std::string& cn, const std::string& token,
                                  bool& inStep) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const Device* device = findByToken(cn, token);
    if (device == nullptr) {
        return false;
    }
    inStep = device->synchronized && device->events.empty() && anyDevice_.empty();
    return true;
}

void DeviceRegistry::queueEvent(const std::string& cn, const std::string& event,
                                std::optional<uint32_t> id, const Json::Value& parameters) {
    std::lock_guard<std::mutex> lock(mutex_);
    Event queued{nextOrder_++, event, id, parameters};
    if (cn.empty()) {
        anyDevice_.push_back(queued);
        return;
    }
    Device& device = devices_[cn];
    device.cn = cn;
    device.events.push_back(queued);
}

bool DeviceRegistry::desynchronize(const std::string& cn) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (cn.empty()) {
        for (auto& entry : devices_) {
            entry.second.synchronized = false;
        }
        return true;
    }
    auto it = devices_.find(cn);
    if (it == devices_.end()) {
        return false;
    }
    it->second.synchronized = false;
    return true;
}

std::optional<DeviceRegistry::Device> DeviceRegistry::device(const std::string& cn) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = devices_.find(cn);
    if (it == devices_.end()) {
        return std::nullopt;
    }
    return it->second;
}

Json::Value DeviceRegistry::toJson() const {
    std::lock_guard<std::mutex> lock(mutex_);
    Json::Value list(Json::arrayValue);
    for (const auto& entry : devices_) {
        const Device& device = entry.second;
        Json::Value item(Json::objectValue);
        item["device"] = device.cn;
        item["gidToken"] = device.gidToken;
        item["daOpidSeqNum"] = device.opidSeqNum;
        item["daGidSeqNum"] = device.gidSeqNum;
        item["synchronized"] = device.synchronized;
        item["identity"] = device.identity;
        item["reported"] = device.reported;
        Json::Value queued(Json::arrayValue);
        for (const Event& event : device.events) {
            queued.append(QueuedToJson(event));
        }
        item["events"] = queued;
        list.append(item);
    }
    Json::Value result(Json::objectValue);
    result["devices"] = list;
    Json::Value shared(Json::arrayValue);
    for (const Event& event : anyDevice_) {
        shared.append(QueuedToJson(event));
    }
    result["anyDeviceEvents"] = shared;
    return result;
}

}  // namespace ZelCloud
