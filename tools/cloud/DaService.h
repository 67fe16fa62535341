#pragma once

#include <mutex>

#include "tools/cloud/CloudSettings.h"
#include "tools/cloud/DeviceRegistry.h"
#include "tools/cloud/Service.h"

namespace ZelCloud {

// The core service: device identity (gid tokens), state synchronisation with the
// settings and events it carries, and the notification poll.
class DaService : public Service {
public:
    DaService(DeviceRegistry& devices, CloudSettings& settings);

    std::string name() const override { return "da"; }
    void handle(const ServiceRequest& request, ServiceResponse& response) override;

    // The next count state answers say "daSynchronized": false.
    void setUnsynchronized(unsigned count);

private:
    void gidToken(const ServiceRequest& request, const Json::Value& body,
                  ServiceResponse& response);
    void state(const ServiceRequest& request, const Json::Value& body, ServiceResponse& response);
    void notification(const ServiceRequest& request, ServiceResponse& response);

    DeviceRegistry& devices_;
    CloudSettings& settings_;
    std::mutex mutex_;
    unsigned unsynchronized_ = 0;
};

}  // namespace ZelCloud
