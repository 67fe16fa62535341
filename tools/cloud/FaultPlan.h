#pragma once

#include <json/value.h>

#include <mutex>
#include <string>
#include <vector>

namespace ZelCloud {

// Faults injected into the answers of the services, each for a number of
// calls to the paths that end with a given suffix ("da/state").
class FaultPlan {
public:
    enum class Kind { Status, Delay, Drop, BadJson, Body };

    struct Fault {
        std::string path;  // suffix of the request path
        Kind kind = Kind::Status;
        int status = 0;      // Kind::Status; Kind::Body (200 when 0)
        long delayMs = 0;    // Kind::Delay
        std::string body;    // Kind::Body: the answer, byte for byte
        unsigned count = 1;  // calls still to be affected
    };

    // What to do to one call; several kinds may meet (a delay, then a status).
    struct Action {
        long delayMs = 0;
        int status = 0;  // 0: none
        bool drop = false;
        bool badJson = false;
        bool hasBody = false;  // answer bodyStatus with body
        int bodyStatus = 200;
        std::string body;
        bool any() const { return delayMs > 0 || status != 0 || drop || badJson || hasBody; }
        std::string describe() const;
    };

    void add(const Fault& fault);
    // Accepts {"path", "status"? | "delayMs"? | "drop"? | "badJson"?, "count"?}, or
    // {"path", "body", "status"?, "count"?} where "status" goes with the body.
    bool add(const Json::Value& fields, std::string& error);
    // Consumes one call from every fault that matches the path.
    Action take(const std::string& path);
    void clear();
    Json::Value toJson() const;

private:
    mutable std::mutex mutex_;
    std::vector<Fault> faults_;
};

}  // namespace ZelCloud
