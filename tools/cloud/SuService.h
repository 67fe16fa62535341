#pragma once

#include "tools/cloud/DeviceRegistry.h"
#include "tools/cloud/Service.h"
#include "tools/cloud/UpdateRegistry.h"

namespace ZelCloud {

// Software updates: the device's report on an offered update, once it has
// the payload or has given up on it. The offer itself travels as a
// "softwareupdate" event and the payload comes from the payload server.
class SuService : public Service {
public:
    SuService(DeviceRegistry& devices, UpdateRegistry& updates);

    std::string name() const override { return "su"; }
    void handle(const ServiceRequest& request, ServiceResponse& response) override;

private:
    DeviceRegistry& devices_;
    UpdateRegistry& updates_;
};

}  // namespace ZelCloud
