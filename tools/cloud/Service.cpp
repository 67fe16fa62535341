#include "tools/cloud/Service.h"

#include <json/reader.h>

#include <memory>

namespace ZelCloud {

bool ParseObject(const std::string& text, Json::Value& value) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &value, &errors) &&
           value.isObject();
}

void Refuse(ServiceResponse& response, int status, const std::string& why) {
    response.status = status;
    response.body = Json::Value(Json::objectValue);
    response.body["error"] = why;
    response.note = why;
}

bool ReadCall(const ServiceRequest& request, std::initializer_list<const char*> calls,
              Json::Value& body, ServiceResponse& response) {
    bool known = false;
    for (const char* call : calls) {
        known = known || request.path == call;
    }
    if (!known) {
        Refuse(response, 404, "no such call");
    } else if (request.method != "POST") {
        Refuse(response, 405, "POST only");
    } else if (!ParseObject(request.body, body)) {
        Refuse(response, 400, "body is not a JSON object");
    } else {
        return true;
    }
    return false;
}

}  // namespace ZelCloud
