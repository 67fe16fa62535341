#pragma once

#include <json/value.h>

#include <string>

namespace ZelCloud {

// One call to a micro-service, already stripped of "/api/v1/<service>/".
struct ServiceRequest {
    std::string method;
    std::string path;  // "state", "command/get", ...
    std::string cn;    // common name of the client certificate
    std::string authorization;
    std::string body;
};

struct ServiceResponse {
    int status = 200;
    Json::Value body{Json::objectValue};
    std::string note;  // a few words for the request log
};

// A micro-service of the cloud ("da", "sv", ...). Each one is a class of its own,
// registered by name in Cloud::registerServices.
class Service {
public:
    virtual ~Service() = default;
    virtual std::string name() const = 0;
    virtual void handle(const ServiceRequest& request, ServiceResponse& response) = 0;
};

}  // namespace ZelCloud
