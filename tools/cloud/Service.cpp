#include "tools/cloud/Service.h"

#include <json/reader.h>

#include <openssl/rand.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace ZelCloud {

bool RandomHex(size_t bytes, std::string& text) {
    std::vector<unsigned char> random(bytes);
    if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) {
        return false;
    }
    text.clear();
    char hex[3];
    for (unsigned char byte : random) {
        snprintf(hex, sizeof(hex), "%02x", byte);
        text += hex;
    }
    return true;
}

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
