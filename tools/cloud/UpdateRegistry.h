#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ZelCloud {

// A software update as published: its claims, where its payload is served and
// the encrypted payload itself.
struct Update {
    std::string id;  // "u1", "u2"... in order of publishing
    std::chrono::system_clock::time_point time;
    std::string device;  // the common name it was offered to
    std::string version;
    std::vector<std::string> audiences;
    std::string displayText;
    bool mandatory = false;
    bool autoAnswer = false;
    bool offered = false;  // the "softwareupdate" event was queued
    bool secure = false;   // url on the TLS server
    uint32_t blockSize = 0;
    uint64_t size = 0;  // plaintext bytes
    uint32_t blocks = 0;
    std::string hash;
    std::string url;
    std::string token;
    // Shared with answers being sent, so that neither copies megabytes.
    std::shared_ptr<const std::string> encrypted;

    // Everything but the payload bytes.
    Json::Value toJson() const;
};

// One "su/download/complete" call the device made.
struct UpdateReport {
    std::chrono::system_clock::time_point time;
    std::string device;  // common name of the client certificate
    bool status = false;
    std::string details;
    std::string date;
    std::string metadata;  // the token the device reports on
    std::string update;    // id of the published update with that token; empty: none

    Json::Value toJson() const;
};

// One request for a payload, over either transport.
struct PayloadRequest {
    std::chrono::system_clock::time_point time;
    std::string id;
    std::string cn;  // the client certificate's; empty over plain HTTP
    bool secure = false;
    std::string range;   // the Range header as sent; empty without one
    int status = 0;      // as sent in the response head
    uint64_t bytes = 0;  // body bytes sent
    std::string fault;   // what the fault plan did to it, or why the answer broke off

    Json::Value toJson() const;
};

// The published updates, the device's reports about them and the payload
// requests served. Waiters are woken on every report and request.
class UpdateRegistry {
public:
    // "u<n>", numbered from 1.
    std::string newId();
    void add(const Update& update);
    // The encrypted payload of an update; null for an unknown id.
    std::shared_ptr<const std::string> payload(const std::string& id) const;
    Json::Value toJson() const;

    // Records a report, matching its token against the published updates.
    UpdateReport addReport(UpdateReport report);
    std::vector<UpdateReport> reports() const;
    bool waitForReports(size_t count, std::chrono::milliseconds timeout) const;

    // A payload request has arrived; it is being answered until addRequest.
    void begin();
    // Records a request and prints it unless quiet.
    void addRequest(const PayloadRequest& request);
    std::vector<PayloadRequest> requests() const;
    bool waitForRequests(size_t count, std::chrono::milliseconds timeout) const;
    // Waits until at least count payload requests are being answered at once.
    bool waitForInFlight(size_t count, std::chrono::milliseconds timeout) const;
    void setQuiet(bool quiet);

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Update> updates_;
    std::vector<UpdateReport> reports_;
    std::vector<PayloadRequest> requests_;
    size_t inFlight_ = 0;
    unsigned lastId_ = 0;
    bool quiet_ = false;
};

}  // namespace ZelCloud
