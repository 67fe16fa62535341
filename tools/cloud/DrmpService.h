#pragma once

#include "tools/cloud/CloudSettings.h"
#include "tools/cloud/DeviceRegistry.h"
#include "tools/cloud/DrmpRegistry.h"
#include "tools/cloud/Service.h"

namespace ZelCloud {

// Secure-object provisioning: the token call, authenticated by an HMAC made
// with the device's unique key, and the work call, which reports the outcome
// of earlier operations and hands out the next ones with the object states.
class DrmpService : public Service {
public:
    DrmpService(DeviceRegistry& devices, CloudSettings& settings, DrmpRegistry& drmp);

    std::string name() const override { return "drmp"; }
    void handle(const ServiceRequest& request, ServiceResponse& response) override;

    // The delays and time-outs a work answer carries; each comes from the
    // setting of the same name with "drmp" before it ("drmpPollDelayFixedMs").
    static const char* const kDelays[8];
    static std::string SettingName(const std::string& delay);

private:
    void token(const ServiceRequest& request, const Json::Value& body, ServiceResponse& response);
    void work(const ServiceRequest& request, const Json::Value& body, ServiceResponse& response);

    DeviceRegistry& devices_;
    CloudSettings& settings_;
    DrmpRegistry& drmp_;
};

}  // namespace ZelCloud
