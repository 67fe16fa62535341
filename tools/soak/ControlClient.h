#pragma once

#include <curl/curl.h>
#include <json/json.h>

#include <string>

// Talks JSON to zel-cloud's control interface (plain HTTP on loopback). One
// easy handle is kept for the whole run, so its buffers are made once and not
// counted as growth; no connection is kept between calls.
class ControlClient {
public:
    explicit ControlClient(int port);
    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    // The answer's JSON document; false with `error` when the call, its status
    // (2xx wanted) or its JSON fails.
    bool get(const std::string& path, Json::Value& answer, std::string& error);
    bool post(const std::string& path, const Json::Value& body, Json::Value& answer,
              std::string& error);

private:
    bool call(const std::string& path, const std::string* body, Json::Value& answer,
              std::string& error);
    // The call itself; may throw (jsoncpp, allocation), which call() turns into an error.
    bool perform(const std::string& path, const std::string* body, Json::Value& answer,
                 std::string& error);
    static size_t Collect(char* data, size_t size, size_t count, void* target);

    std::string base_;
    CURL* curl_;
};
