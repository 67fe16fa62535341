#pragma once

#include <json/value.h>

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

namespace ZelCloud {

// One call to a micro-service, already stripped of "/api/v1/<service>/".
struct ServiceRequest {
    std::string method;
    std::string path;           // "state", "command/get", ...
    std::string cn;             // common name of the client certificate
    std::string authorization;  // the first Authorization header
    std::string body;
    // Every Authorization header in the order sent: the sv calls carry the
    // session token in a second one.
    std::vector<std::string> authorizations;
};

struct ServiceResponse {
    int status = 200;
    Json::Value body{Json::objectValue};
    std::string note;  // a few words for the request log
};

// `bytes` random bytes as lower-case hex, for tokens; false when the random
// source fails.
bool RandomHex(size_t bytes, std::string& text);

// A body that parses as a JSON object; false for anything else.
bool ParseObject(const std::string& text, Json::Value& value);
// Answers `status` with {"error": why}.
void Refuse(ServiceResponse& response, int status, const std::string& why);
// The checks every call of a service starts with: a path among `calls`
// (404), POST (405) and a JSON object body (400). False once refused.
bool ReadCall(const ServiceRequest& request, std::initializer_list<const char*> calls,
              Json::Value& body, ServiceResponse& response);

// A micro-service of the cloud ("da", "sv", ...). Each one is a class of its own,
// registered by name in Cloud::registerServices.
class Service {
public:
    virtual ~Service() = default;
    virtual std::string name() const = 0;
    virtual void handle(const ServiceRequest& request, ServiceResponse& response) = 0;
    // The cloud is stopping: answer whatever is being held open, at once.
    virtual void stop() {}
};

}  // namespace ZelCloud
