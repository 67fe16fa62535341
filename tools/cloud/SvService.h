#pragma once

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "tools/cloud/DeviceRegistry.h"
#include "tools/cloud/Service.h"
#include "tools/cloud/SessionRegistry.h"

namespace ZelCloud {

// Remote support: sessions opened, suspended, resumed and ended by the device,
// the long poll through which it receives tasks, and the results it posts back.
// The gid token comes in the first Authorization header, the session token in
// a second one.
class SvService : public Service {
public:
    static constexpr long kDefaultLongPollMs = 10000;
    static constexpr unsigned kDefaultCodeDigits = 9;

    SvService(DeviceRegistry& devices, SessionRegistry& sessions);

    std::string name() const override { return "sv"; }
    void handle(const ServiceRequest& request, ServiceResponse& response) override;
    void stop() override;

    // How long a command/get waits for a task before answering 204.
    void setLongPollMs(long ms) { longPollMs_ = ms < 0 ? 0 : ms; }
    long longPollMs() const { return longPollMs_; }

    // The task request document: {"SESSION_ID": code, "TASK_ID": "<seqNum>",
    // "REQUESTS": requests}, as compact text.
    static std::string TaskDocument(const std::string& code, uint32_t seqNum,
                                    const Json::Value& requests);

private:
    void initialize(const ServiceRequest& request, const Json::Value& body,
                    ServiceResponse& response);
    void getCommand(const ServiceRequest& request, const std::string& token,
                    const Json::Value& body, ServiceResponse& response);
    void putCommand(const ServiceRequest& request, const std::string& token,
                    const Json::Value& body, ServiceResponse& response);

    DeviceRegistry& devices_;
    SessionRegistry& sessions_;
    std::atomic<long> longPollMs_{kDefaultLongPollMs};
};

}  // namespace ZelCloud
