#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "tools/cloud/RecordedRequest.h"

namespace ZelCloud {

// Every request served, in order of completion. Waiters are woken per request,
// so tests can wait for the traffic they expect instead of sleeping.
class RequestLog {
public:
    using Predicate = std::function<bool(const std::vector<RecordedRequest>&)>;

    // A request has arrived and is being served (possibly held by a fault).
    void begin();
    // Appends the record of a request begun earlier, prints it unless quiet,
    // and wakes the waiters.
    void add(const RecordedRequest& request);
    std::vector<RecordedRequest> snapshot() const;
    size_t size() const;
    void clear();

    void setQuiet(bool quiet);
    bool waitForRequests(size_t count, std::chrono::milliseconds timeout) const;
    bool waitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const;
    // Waits until at least count requests are being served at once.
    bool waitForInFlight(size_t count, std::chrono::milliseconds timeout) const;

    // "12:00:00.123 CN POST /api/v1/da/state -> 200 note"
    static std::string FormatLine(const RecordedRequest& request);

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<RecordedRequest> requests_;
    size_t inFlight_ = 0;
    bool quiet_ = false;
};

}  // namespace ZelCloud
