#pragma once

#include <json/value.h>

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace ZelCloud {

// What the cloud knows about each device, keyed by the common name of its
// client certificate, and the events waiting for it.
class DeviceRegistry {
public:
    struct Event {
        uint64_t order = 0;  // position among every event queued, across devices
        std::string event;
        std::optional<uint32_t> id;
        Json::Value parameters;  // null: none given
    };

    struct Device {
        std::string cn;
        std::string gidToken;
        uint32_t opidSeqNum = 0;
        uint32_t gidSeqNum = 0;
        bool synchronized = false;
        uint32_t nextEventId = 1;
        Json::Value identity;  // last gidtoken body
        Json::Value reported;  // last state body
        std::deque<Event> events;
    };

    // A fresh token for the device; its sequence numbers and synchronised flag start over.
    std::string issueToken(const std::string& cn, const Json::Value& identity);
    // True when the token is the current one of the device with this common name.
    bool knows(const std::string& cn, const std::string& token) const;

    // Records a state report and hands out the queued events (the device's own and
    // those for any device, in the order they were queued). False for an unknown token.
    bool reportState(const std::string& cn, const std::string& token, const Json::Value& body,
                     bool synchronized, uint32_t opidSeqNum, Device& answer, Json::Value& events);
    // False for an unknown token; otherwise whether the device is in step with the cloud.
    bool notification(const std::string& cn, const std::string& token, bool& inStep) const;

    // An empty cn queues for whichever device synchronises next; a device not yet
    // seen gets a record so its events wait for it.
    void queueEvent(const std::string& cn, const std::string& event, std::optional<uint32_t> id,
                    const Json::Value& parameters);
    // An empty cn marks every device. False when the named device is unknown.
    bool desynchronize(const std::string& cn);

    std::optional<Device> device(const std::string& cn) const;
    Json::Value toJson() const;

private:
    static Json::Value EventToJson(Device& device, const Event& event);
    Device* findByToken(const std::string& cn, const std::string& token);
    const Device* findByToken(const std::string& cn, const std::string& token) const;

    mutable std::mutex mutex_;
    std::map<std::string, Device> devices_;
    std::deque<Event> anyDevice_;
    uint64_t nextOrder_ = 0;
};

}  // namespace ZelCloud
