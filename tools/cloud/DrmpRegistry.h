#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ZelCloud {

// Secure-object provisioning, per device (by common name): the unique keys the
// lab registered, the drmp tokens, the operations waiting to be handed out,
// the object states the cloud holds and everything the devices reported.
// Waiters are woken on every token call, work call and queued operation.
class DrmpRegistry {
public:
    // A device's unique key: its index and the raw key bytes.
    struct Key {
        int64_t index = 0;
        std::string bytes;
    };

    struct TokenCall {
        std::chrono::system_clock::time_point time;
        std::string deviceId;
        int64_t index = 0;
        bool checked = false;  // a key was known, so the hmac was checked
        bool matched = false;  // index and hmac agreed with the key
    };

    // One outcome the device reported, with the "seqNum" of the work call that carried it.
    struct Result {
        std::chrono::system_clock::time_point time;
        std::string device;
        uint32_t seqNum = 0;
        std::string name;
        std::string operation;
        bool success = false;

        Json::Value toJson() const;
    };

    // What a work call reports, already checked for types.
    struct Work {
        uint32_t seqNum = 0;
        std::string gid;
        bool gidCurrent = false;  // the device's current da gid token
        std::vector<std::string> supported;
        std::vector<Result> results;  // name, operation and success filled in
    };

    // What a work call is answered with, besides the delays.
    struct Orders {
        uint32_t seqNum = 0;
        Json::Value operations{Json::arrayValue};
        Json::Value status{Json::arrayValue};
    };

    struct Queued {
        uint64_t order = 0;  // position among every operation queued, across devices
        Json::Value operation;
    };

    struct Device {
        std::string cn;
        std::string deviceId;
        std::string token;
        uint32_t seqNum = 0;  // the last one handed out
        unsigned workCalls = 0;
        std::string gid;
        bool gidCurrent = false;
        std::vector<std::string> supported;
        std::deque<Queued> queued;
        // Object name and state ("available", "pending"), in order of arrival. A
        // deleted object leaves the list, as the device drops a name it no longer hears of.
        std::vector<std::pair<std::string, std::string>> objects;
        std::vector<Result> results;
        std::vector<TokenCall> tokenCalls;
    };

    using Predicate = std::function<bool(const Json::Value& drmp)>;

    // A key for a device's common name or device id; an empty device gives the
    // key of every device without one of its own.
    void setKey(const std::string& device, const Key& key);

    enum class TokenOutcome { Issued, Refused, NoRandom };
    // Checks the hmac when the device's key is known, and issues a fresh token,
    // which retires the previous one. Every call is recorded.
    TokenOutcome issueToken(const std::string& cn, const std::string& deviceId, int64_t index,
                            const std::string& hmac, std::string& token, TokenCall& call);

    // Records a work call and hands out the device's queued operations (its own and
    // those for any device, in the order queued). False for an unknown token.
    bool work(const std::string& cn, const std::string& token, Work report, Orders& orders);

    // Queues the operations for a device; an empty device means the device that
    // called last, or, before any has, whichever device asks next. Returns the
    // device they went to ("" for any).
    std::string queue(const std::string& device, const std::vector<Json::Value>& operations);

    // The results of a device, or of every device in order of arrival when empty.
    std::vector<Result> results(const std::string& device) const;
    bool waitForResults(size_t count, std::chrono::milliseconds timeout,
                        const std::string& device) const;
    // Waits until the predicate holds for toJson(); checked on every change, locked.
    bool waitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const;
    Json::Value toJson() const;

    // {"device"?, "index", "key": hex}
    static bool KeyFromJson(const Json::Value& fields, std::string& device, Key& key,
                            std::string& error);
    // One operation object or an array of them; "valueText" becomes "value", its
    // base64, and gives "unencryptedSize" unless set.
    static bool OperationsFromJson(const Json::Value& value, std::vector<Json::Value>& operations,
                                   std::string& error);
    // Base64 of HMAC-SHA256 of the message under the key: what the device sends.
    static std::string Hmac(const std::string& key, const std::string& message);
    static std::string Base64(const std::string& bytes);

private:
    const Key* keyFor(const std::string& cn, const std::string& deviceId) const;
    void setState(Device& device, const std::string& name, const std::string& state);
    void takeOperation(Device& device, const Json::Value& operation, Orders& orders);
    Json::Value toJsonLocked() const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, Key> keys_;
    std::map<std::string, Device> devices_;
    std::deque<Queued> anyDevice_;
    std::vector<Result> allResults_;
    std::string lastDevice_;
    uint64_t nextOrder_ = 0;
};

}  // namespace ZelCloud
