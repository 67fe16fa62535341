#include "tools/cloud/RecordedRequest.h"

#include <time.h>

#include <cstdio>

namespace ZelCloud {

std::string RecordedRequest::FormatTime(std::chrono::system_clock::time_point time) {
    auto since = time.time_since_epoch();
    time_t seconds = std::chrono::duration_cast<std::chrono::seconds>(since).count();
    auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(since).count() % 1000;
    struct tm utc {};
    gmtime_r(&seconds, &utc);
    char text[40];
    strftime(text, sizeof(text), "%FT%T", &utc);
    char full[48];
    snprintf(full, sizeof(full), "%s.%03dZ", text, static_cast<int>(millis));
    return full;
}

Json::Value RecordedRequest::toJson() const {
    Json::Value value(Json::objectValue);
    value["time"] = FormatTime(time);
    value["method"] = method;
    value["path"] = path;
    value["host"] = host;
    value["cn"] = cn;
    value["authorization"] = authorization;
    value["connection"] = static_cast<Json::UInt64>(connection);
    value["headers"] = Json::Value(Json::arrayValue);
    for (const std::string& header : headers) {
        value["headers"].append(header);
    }
    value["body"] = body;
    value["status"] = status;
    value["note"] = note;
    return value;
}

}  // namespace ZelCloud
