#pragma once

#include <json/value.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace ZelCloud {

// Faults injected into the answers of the payload server, each for a number of
// requests for one payload or for any.
class PayloadFaults {
public:
    enum class Kind { Status, Delay, Drop, Corrupt, Body };

    struct Fault {
        std::string id;  // the payload's update id; empty: every payload
        Kind kind = Kind::Status;
        int status = 0;       // Kind::Status: answered instead of the data; Kind::Body (200 when 0)
        long delayMs = 0;     // Kind::Delay: waited before answering
        uint64_t offset = 0;  // Kind::Corrupt: the payload byte flipped
        unsigned count = 1;   // requests still to be affected
        std::string body;     // Kind::Body: answered instead of the data, byte for byte
    };

    // What to do to one answer with payload bytes; a delay comes first.
    struct Action {
        long delayMs = 0;
        int status = 0;  // 0: none
        bool drop = false;
        bool corrupt = false;
        uint64_t offset = 0;   // the payload byte flipped
        bool hasBody = false;  // answer bodyStatus with body instead of the data
        int bodyStatus = 200;
        std::string body;
        std::string describe() const;
    };

    void add(const Fault& fault);
    // {"id"?, "status"? | "delayMs"? | "drop"? | "corruptOffset"?, "count"?}; several
    // kinds in one object make one fault each. With "body", "status" goes with it.
    bool add(const Json::Value& fields, std::string& error);
    // Consumes one request from the first status, delay, drop and body fault
    // that matches the payload.
    Action take(const std::string& id);
    // Consumes one request from the first corrupt fault whose byte lies in
    // [first, last], the bytes about to be sent; fills in action.
    void takeCorrupt(const std::string& id, uint64_t first, uint64_t last, Action& action);
    void clear();
    Json::Value toJson() const;

private:
    void prune();  // locked

    mutable std::mutex mutex_;
    std::vector<Fault> faults_;
};

}  // namespace ZelCloud
