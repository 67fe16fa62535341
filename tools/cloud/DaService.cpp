#include "tools/cloud/DaService.h"

namespace ZelCloud {

DaService::DaService(DeviceRegistry& devices, CloudSettings& settings)
    : devices_(devices), settings_(settings) {}

void DaService::setUnsynchronized(unsigned count) {
    std::lock_guard<std::mutex> lock(mutex_);
    unsynchronized_ = count;
}

void DaService::handle(const ServiceRequest& request, ServiceResponse& response) {
    Json::Value body;
    if (!ReadCall(request, {"gidtoken", "state", "notification"}, body, response)) {
        return;
    }
    if (request.path == "gidtoken") {
        gidToken(request, body, response);
    } else if (request.path == "state") {
        state(request, body, response);
    } else {
        notification(request, response);
    }
}

void DaService::gidToken(const ServiceRequest& request, const Json::Value& body,
                         ServiceResponse& response) {
    if (request.cn.empty()) {
        Refuse(response, 403, "no client certificate");
        return;
    }
    std::string token = devices_.issueToken(request.cn, body);
    if (token.empty()) {
        Refuse(response, 500, "no random token");
        return;
    }
    response.body["daGidToken"] = token;
    response.note = "new gid token";
}

void DaService::state(const ServiceRequest& request, const Json::Value& body,
                      ServiceResponse& response) {
    bool synchronized = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (unsynchronized_ > 0 && devices_.knows(request.cn, request.authorization)) {
            --unsynchronized_;
            synchronized = false;
        }
    }
    DeviceRegistry::Device device;
    Json::Value events;
    if (!devices_.reportState(request.cn, request.authorization, body, synchronized,
                              settings_.version(), device, events)) {
        Refuse(response, 422, "unknown gid token");
        return;
    }
    // Settings first: the protocol's own keys below always win.
    Json::Value& answer = response.body;
    answer = settings_.current();
    answer["daSynchronized"] = synchronized;
    answer["daOpidSeqNum"] = device.opidSeqNum;
    answer["daGidSeqNum"] = device.gidSeqNum;
    if (body["suCheckForSoftwareUpdate"].isBool() && body["suCheckForSoftwareUpdate"].asBool()) {
        // Acknowledge the check so the device clears its request.
        answer["suCheckForSoftwareUpdate"] = false;
    }
    answer["daEvents"] = events;
    response.note = synchronized ? "synchronized" : "not synchronized";
    if (!events.empty()) {
        response.note += ", " + std::to_string(events.size()) + " event(s)";
    }
}

void DaService::notification(const ServiceRequest& request, ServiceResponse& response) {
    bool inStep = false;
    if (!devices_.notification(request.cn, request.authorization, inStep)) {
        Refuse(response, 422, "unknown gid token");
        return;
    }
    response.body["daStateSynchronized"] = inStep;
    response.note = inStep ? "in step" : "state changed";
}

}  // namespace ZelCloud
