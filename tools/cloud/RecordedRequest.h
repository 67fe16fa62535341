#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace ZelCloud {

// One request the cloud served, as the control interface and the tests see it.
struct RecordedRequest {
    std::chrono::system_clock::time_point time;
    std::string method;
    std::string path;
    std::string host;
    std::string cn;                    // common name of the client certificate
    std::string authorization;         // the Authorization header, "" when absent
    std::vector<std::string> headers;  // every header line ("Name: value") in the order sent
    uint64_t connection = 0;           // the connection it came over; 0 when not known
    std::string body;
    int status = 0;  // 0 when the connection was dropped without an answer
    std::string note;

    Json::Value toJson() const;
    // "2024-05-01T12:00:00.123Z"
    static std::string FormatTime(std::chrono::system_clock::time_point time);
};

}  // namespace ZelCloud
