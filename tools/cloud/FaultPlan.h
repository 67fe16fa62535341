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
    enum class Kind { Status, Delay, Drop, BadJson };

    struct Fault {
        std::string path;  // suffix of the request path
        Kind kind = Kind::Status;
        int status = 0;      // Kind::Status
        long delayMs = 0;    // Kind::Delay
        unsigned count = 1;  // calls still to be affected
    };

    // What to do to one call; several kinds may meet (a delay, then a status).
    struct Action {
        long delayMs = 0;
        int status = 0;  // 0: none
        bool drop = false;
        bool badJson = false;
        bool any() const { return delayMs > 0 || status != 0 || drop || badJson; }
        std::string describe() const;
    };

    void add(const Fault& fault);
    // Accepts {"path", "status"? | "delayMs"? | "drop"? | "badJson"?, "count"?}.
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
