#pragma once

#include <json/value.h>

#include <cstdint>
#include <mutex>

namespace ZelCloud {

// The settings the cloud hands out with every state answer: short, lab-friendly
// delay and time-out defaults, plus whatever keys the operator set.
class CloudSettings {
public:
    CloudSettings();

    static Json::Value Defaults();
    // Defaults that name the running cloud's own address (the speed test's
    // urls), set once it knows its port; the operator's keys still win.
    void setAddressDefaults(const Json::Value& keys);

    // Merges an object of keys; a null value removes the operator's key (and so
    // restores the default, if there is one). False when the value is not an object.
    bool merge(const Json::Value& keys);
    // Defaults overlaid with the operator's keys.
    Json::Value current() const;
    // Counts the operator's changes; handed out as the operator sequence number.
    uint32_t version() const;

private:
    mutable std::mutex mutex_;
    Json::Value operatorKeys_;
    Json::Value addressDefaults_;
    uint32_t version_ = 1;
};

}  // namespace ZelCloud
